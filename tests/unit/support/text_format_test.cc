#include "support/text_format.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <string>

namespace talvorn {
namespace {

template <class... Arguments>
std::string Formatted(CheckedFormat<char, std::type_identity_t<Arguments>...> format,
                      const Arguments&... arguments) {
  std::array<char, 200> buffer{};
  const int length = FormatTextA(buffer, format, arguments...);
  return length < 0 ? "-1" : std::string(buffer.data(), static_cast<std::size_t>(length));
}

TEST(TextFormat, WritesWhatPrintfWrites) {
  EXPECT_EQ(Formatted("%07u|%u", 1234u, 0u), "0001234|0");
  EXPECT_EQ(Formatted("%07lu", std::numeric_limits<std::uint32_t>::max()), "4294967295");
  EXPECT_EQ(Formatted("[0x%08x] %X", 0xBEEFu, 0xBEEFu), "[0x0000beef] BEEF");
  EXPECT_EQ(Formatted("%d %05d %5d", -7, -7, 42), "-7 -0007    42");
  EXPECT_EQ(Formatted("%d", std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(Formatted("%llu", std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(Formatted("100 %% of %s, %4s", "x", std::string("ab")), "100 % of x,   ab");
  EXPECT_EQ(Formatted("%02u:%02u", std::uint8_t{5}, std::uint16_t{59}), "05:59");
}

TEST(TextFormat, FormatsWideText) {
  std::array<char16_t, 50> buffer{};
  EXPECT_EQ(FormatTextW(buffer, u"%u.%u %s", std::uint8_t{192}, 0u, u"\u00E4"), 7);
  EXPECT_EQ(std::u16string(buffer.data()), u"192.0 \u00E4");
}

}  // namespace
}  // namespace talvorn
