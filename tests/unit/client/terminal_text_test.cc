#include <gtest/gtest.h>

#include <string>

#include "command_line/terminal_text.h"
#include "platform/terminal_escape.h"

namespace talvorn {
namespace {

TEST(EscapeForTerminal, NothingThatCommandsATerminalGetsThrough) {
  struct Case {
    std::u16string_view text;
    std::string_view shown;
  };
  for (const Case& c :
       std::initializer_list<Case>{{u"plain text", "plain text"},
                                   {u"Pr\u00FCfstand \u20AC", "Pr\u00FCfstand \u20AC"},
                                   {u"\u001b[2J", "\\x1b[2J"},
                                   {u"\u009b2J", "\\x9b2J"},
                                   {u"a\r\nb\tc\u007f", "a\\x0d\\x0ab\\x09c\\x7f"},
                                   {u"soft\u00adhyphen", "soft\\xadhyphen"},
                                   {u"\u202Eabc\u2066", "\\u202eabc\\u2066"},
                                   {u"\u200f\u2028\uFEFF", "\\u200f\\u2028\\ufeff"},
                                   {u"\U000E0041", "\\ue0041"},
                                   {u"\u65E5\U0001F600", "\u65E5\U0001F600"},
                                   {std::u16string_view(u"\0x", 2), "\\x00x"},
                                   {u"\xD800!", "\uFFFD!"}}) {
    EXPECT_EQ(platform::EscapeForTerminal(c.text), c.shown);
  }
  EXPECT_EQ(EscapeForTerminal(std::string_view("\xff\x1b")), "\uFFFD\\x1b");
}

TEST(CutToWidth, CountsColumns) {
  EXPECT_EQ(CutToWidth("12345", 5), "12345");
  EXPECT_EQ(CutToWidth("123456", 5), "1234\u2026");
  EXPECT_EQ(CutToWidth("\u65E5\u672C\u8A9E", 5), "\u65E5\u672C\u2026");
  EXPECT_EQ(CutToWidth("\u65E5\u672C\u8A9E", 4), "\u65E5\u2026");
  EXPECT_EQ(CutToWidth("e\u0301", 1), "e\u0301");
  EXPECT_EQ(CutToWidth("abc", 0), "");
}

}  // namespace
}  // namespace talvorn
