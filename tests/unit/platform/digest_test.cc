#include "platform/digest.h"

#include <gtest/gtest.h>

#include <string_view>

namespace talvorn::platform {
namespace {

std::string Hex(const Sha1Digest& digest) {
  std::string text;
  for (const std::byte byte : digest) {
    text += "0123456789abcdef"[std::to_integer<int>(byte) >> 4];
    text += "0123456789abcdef"[std::to_integer<int>(byte) & 0xF];
  }
  return text;
}

TEST(DigestProvider, ComputesSha1AsOftenAsAsked) {
  const DigestProvider provider;
  ASSERT_TRUE(provider.valid());
  const std::pair<std::string_view, std::string_view> digests[] = {
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
  };
  for (const auto& [text, expected] : digests) {
    Sha1Digest digest{};
    EXPECT_TRUE(provider.Sha1(std::as_bytes(std::span(text)), digest));
    EXPECT_EQ(Hex(digest), expected);
  }
}

}  // namespace
}  // namespace talvorn::platform
