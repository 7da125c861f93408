#include "devices/keyed_hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace talvorn {
namespace {

TEST(KeyedHash, InputsChosenToMeetSpreadUnderOtherKeys) {
  using Input = std::array<std::uint32_t, 3>;
  constexpr std::size_t kBuckets = 64;
  const KeyedHash<3> known;
  const KeyedHash<3> other;
  std::array<std::size_t, kBuckets> buckets{};
  std::size_t chosen = 0;
  for (Input input{}; chosen < 6'400; ++input[0]) {
    if (known(input) % kBuckets != 0) continue;
    ++chosen;
    ++buckets[other(input) % kBuckets];
  }
  EXPECT_LT(*std::ranges::max_element(buckets), chosen / 16);
}

}  // namespace
}  // namespace talvorn
