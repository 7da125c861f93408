#include "devices/keyed_hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace talvorn {
namespace {

// Inputs that share a bucket with each other under keys that somebody knows.
std::vector<std::array<std::uint32_t, 3>> ChosenToMeet(const KeyedHash<3>& known,
                                                       std::size_t count) {
  std::mt19937 random(1);
  std::vector<std::array<std::uint32_t, 3>> inputs;
  while (inputs.size() < count) {
    std::array<std::uint32_t, 3> input{};
    for (std::uint32_t& word : input) word = static_cast<std::uint32_t>(random());
    if (known(input) % 64 == 0) inputs.push_back(input);
  }
  return inputs;
}

std::size_t LargestBucket(const KeyedHash<3>& hash,
                          const std::vector<std::array<std::uint32_t, 3>>& inputs) {
  std::vector<std::size_t> buckets(64);
  for (const auto& input : inputs) ++buckets[hash(input) % buckets.size()];
  return *std::ranges::max_element(buckets);
}

TEST(KeyedHash, InputsChosenToMeetSpreadUnderOtherKeys) {
  const KeyedHash<3> known;
  const auto inputs = ChosenToMeet(known, 6'400);
  EXPECT_EQ(LargestBucket(known, inputs), inputs.size());
  EXPECT_LT(LargestBucket(KeyedHash<3>(), inputs), inputs.size() / 16);
}

}  // namespace
}  // namespace talvorn
