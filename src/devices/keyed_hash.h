// A hash that nobody outside can foresee: multilinear, with random keys of its own in
// every object. Whoever chooses two different inputs, they meet in one value under one
// choice of keys in 2^32.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>

namespace talvorn {

template <std::size_t words>
class KeyedHash {
 public:
  KeyedHash() {
    std::random_device random;
    for (std::uint64_t& key : keys_) key = std::uint64_t{random()} << 32 | random();
  }

  std::size_t operator()(const std::array<std::uint32_t, words>& input) const {
    std::uint64_t sum = keys_.back();
    for (std::size_t i = 0; i < words; ++i) sum += keys_[i] * input[i];
    return static_cast<std::size_t>(sum >> 32);
  }

 private:
  std::array<std::uint64_t, words + 1> keys_;
};

}  // namespace talvorn
