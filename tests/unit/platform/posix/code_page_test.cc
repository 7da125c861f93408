#include "platform/posix/code_page.h"

#include <gtest/gtest.h>

#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

TEST(CodePage, IsWindows1252WithoutAWish) {
  std::string everyByte;
  for (int byte = 0; byte < 256; ++byte) everyByte += static_cast<char>(byte);
  for (const std::string_view wish : {"", "1252", "windows-1252"})
    EXPECT_EQ(CodePage(wish).ToWide(everyByte), NarrowToWide(everyByte)) << wish;
}

TEST(CodePage, IsWhatIconvKnows) {
  EXPECT_EQ(CodePage("1251").ToWide("Cex \xD6\xE5\xF5"), u"Cex \u0426\u0435\u0445");
  EXPECT_EQ(CodePage("CP1251").ToWide("\xD6\x98\xE5"), u"\u0426\uFFFD\u0435") << "no such byte";
  EXPECT_EQ(CodePage("932").ToWide("a\x83v\x83\x8C\x83X"), u"a\u30D7\u30EC\u30B9");
  EXPECT_EQ(CodePage("932").ToWide("\x83v\x83"), u"\u30D7\uFFFD") << "cut in the middle";
  EXPECT_EQ(CodePage("GB18030").ToWide("\x95\x32\x82\x36"), u"\U00020000");
  const std::string mark = "\xD6";
  std::string many;
  for (int i = 0; i < 1'000; ++i) many += mark;
  EXPECT_EQ(CodePage("1251").ToWide(many), std::u16string(1'000, u'\u0426'));
}

TEST(CodePage, ComesAfterUtf8WhereThatIsWished) {
  const std::string utf8 = "\xD0\xA6\xD0\xB5\xD1\x85";
  for (const std::string_view wish : {"utf-8", "UTF8,1251", "utf-8,"})
    EXPECT_EQ(CodePage(wish).ToWide(utf8), u"\u0426\u0435\u0445") << wish;
  EXPECT_EQ(CodePage("utf-8,1251").ToWide("\xD6\xE5\xF5"), u"\u0426\u0435\u0445");
  EXPECT_EQ(CodePage("utf-8").ToWide("\xE4"), u"\u00E4");
}

TEST(CodePage, ThatDoesNotExistIsNotKnown) {
  for (const std::string_view wish :
       {"latin-7000", "99999", "1251//TRANSLIT", "utf-8,nonsense", "UTF-16", "IBM037"}) {
    EXPECT_FALSE(CodePage(wish).known()) << wish;
    EXPECT_EQ(CodePage(wish).ToWide("\xE4"), u"\u00E4");
  }
  EXPECT_TRUE(CodePage("utf-8,1251").known());
}

}  // namespace
}  // namespace talvorn::platform
