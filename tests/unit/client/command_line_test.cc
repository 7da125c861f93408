#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "command_line/options.h"
#include "command_line/terminal_text.h"

namespace talvorn {
namespace {

using ::testing::HasSubstr;
using Strings = std::vector<std::string>;

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
                                   {u"\u0085", "\\x85"},
                                   {u"soft\u00adhyphen", "soft\\xadhyphen"},
                                   {u"\u202Eabc\u2066", "\\u202eabc\\u2066"},
                                   {u"\u200f\u2028\uFEFF", "\\u200f\\u2028\\ufeff"},
                                   {u"\U000E0041", "\\ue0041"},
                                   {u"\U0001F600", "\U0001F600"},
                                   {u"\u65E5\u672C", "\u65E5\u672C"}}) {
    EXPECT_EQ(EscapeForTerminal(c.text), c.shown);
  }
  EXPECT_EQ(EscapeForTerminal(std::u16string_view(u"\0x", 2)), "\\x00x");
  // Ill-formed text becomes well-formed.
  EXPECT_EQ(EscapeForTerminal(std::string_view("\xff\x1b")), "\uFFFD\\x1b");
  EXPECT_EQ(EscapeForTerminal(std::u16string_view(u"\xD800!")), "\uFFFD!");
}

TEST(EscapeForTerminal, EveryNarrowByteIsPrintableAfterwards) {
  for (int byte = 1; byte < 256; ++byte) {
    const std::string shown = EscapeNarrow(std::string(1, static_cast<char>(byte)));
    for (const char c : shown) EXPECT_GE(static_cast<unsigned char>(c), 0x20) << byte;
    EXPECT_EQ(shown.find("\xC2\x80"), std::string::npos);
    EXPECT_TRUE(DisplayWidth(shown) == 1 || DisplayWidth(shown) == 4) << byte;
  }
}

TEST(DisplayWidth, CountsColumns) {
  EXPECT_EQ(DisplayWidth(""), 0u);
  EXPECT_EQ(DisplayWidth("Pr\u00FCfstand"), 9u);
  EXPECT_EQ(DisplayWidth("\u65E5\u672C"), 4u);
  EXPECT_EQ(DisplayWidth("e\u0301"), 1u);

  EXPECT_EQ(CutToWidth("12345", 5), "12345");
  EXPECT_EQ(CutToWidth("123456", 5), "1234\u2026");
  EXPECT_EQ(CutToWidth("\u65E5\u672C\u8A9E", 5), "\u65E5\u672C\u2026");
  EXPECT_EQ(CutToWidth("\u65E5\u672C\u8A9E", 4), "\u65E5\u2026");
  EXPECT_EQ(CutToWidth("abc", 1), "\u2026");
  EXPECT_EQ(CutToWidth("abc", 0), "");
}

class OptionsTest : public ::testing::Test {
 protected:
  // What is wrong with the arguments; empty when nothing is.
  std::string Parse(const Strings& arguments) {
    operands_.clear();
    return ParseOptions(arguments, options_, operands_).value_or("");
  }

  std::uint32_t count_ = 7;
  std::uint32_t seconds_ = 0;
  std::string text_;
  bool on_ = false;
  std::string maybe_ = "never called";
  Strings operands_;
  std::vector<Option> options_ = {
      {"--count", "N", "how many\nof them", TakeNumber(count_, 1, 100)},
      {"--wait", "SECONDS", "how long", TakeSeconds(seconds_, 100, 86'400'000)},
      {"--text", "TEXT", "which text", TakeText(text_)},
      {"--on", "", "on", TakeSwitch(on_)},
      {"--maybe", "[N]", "if so", [this](std::string_view value) {
         maybe_ = value;
         return std::string();
       }}};
};

TEST_F(OptionsTest, ValuesInBothForms) {
  EXPECT_EQ(Parse({"--count", "42", "--text=a=b", "x", "--on", "-", "--wait", "1.25", "y"}), "");
  EXPECT_EQ(count_, 42u);
  EXPECT_EQ(text_, "a=b");
  EXPECT_EQ(seconds_, 1'250u);
  EXPECT_TRUE(on_);
  EXPECT_EQ(operands_, (Strings{"x", "-", "y"}));
  EXPECT_EQ(Parse({"--text", "-v", "--", "--count", "--"}), "");
  EXPECT_EQ(text_, "-v");
  EXPECT_EQ(operands_, (Strings{"--count", "--"}));
}

TEST_F(OptionsTest, AnOptionalValueBeginsWithADigit) {
  EXPECT_EQ(Parse({"--maybe", "5"}), "");
  EXPECT_EQ(maybe_, "5");
  EXPECT_EQ(Parse({"--maybe", "x"}), "");
  EXPECT_EQ(maybe_, "");
  EXPECT_EQ(operands_, Strings{"x"});
  EXPECT_EQ(Parse({"--maybe", "--on"}), "");
  EXPECT_EQ(maybe_, "");
  EXPECT_EQ(Parse({"--maybe=x"}), "");
  EXPECT_EQ(maybe_, "x");
}

TEST_F(OptionsTest, MistakesAreSaid) {
  EXPECT_EQ(Parse({"--frob"}), "there is no option '--frob'");
  EXPECT_EQ(Parse({"--\x1b[2J"}), "there is no option '--\\x1b[2J'");
  EXPECT_EQ(Parse({"--count"}), "--count needs a value (N)");
  EXPECT_EQ(Parse({"--count", "--on"}), "--count needs a value (N)");
  EXPECT_EQ(Parse({"--on=1"}), "--on takes no value");
  EXPECT_EQ(Parse({"--text="}), "--text takes a value, not ''");
  for (const char* value : {"0", "101", "-1", "+1", "1x", "", " 1", "1.0", "99999999999999999999"})
    EXPECT_EQ(Parse({std::string("--count=") + value}),
              std::string("--count takes a number from 1 to 100, not '") + value + "'");
  for (const char* value : {"0.09", "0", ".5", "1.", "1.2345", "1.2.3", "1e3", "86400.001"})
    EXPECT_THAT(Parse({std::string("--wait=") + value}),
                HasSubstr("takes a number of seconds from 0.1 to 86400, not"));
  EXPECT_EQ(count_, 7u);
  EXPECT_EQ(seconds_, 0u);
}

TEST_F(OptionsTest, HelpIsAligned) {
  EXPECT_EQ(OptionsHelp(std::span(options_).first(2)),
            "  --count N       how many\n"
            "                  of them\n"
            "  --wait SECONDS  how long\n");
}

}  // namespace
}  // namespace talvorn
