#include "platform/text_encoding.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace talvorn::platform {
namespace {

TEST(TextEncoding, NarrowTextsAreWindows1252) {
  EXPECT_EQ(NarrowToWide("\x80\x85\x9F\xA0\xE4\xFF"), u"\u20AC\u2026\u0178\u00A0\u00E4\u00FF");
  EXPECT_EQ(NarrowToWide("\x81\x8D\x8F\x90\x9D"), u"\u0081\u008D\u008F\u0090\u009D");
  std::string everyByte;
  for (int byte = 0; byte < 256; ++byte) everyByte += static_cast<char>(byte);
  EXPECT_EQ(WideToNarrow(NarrowToWide(everyByte)), everyByte);
  EXPECT_EQ(WideToNarrow(u"A\u0100\u03A9\u201Bz\u0080"), "A???z?") << "no similar characters";
}

// How many replacements one ill-formed sequence becomes is each system's own.
std::u16string OneReplacementEach(std::u16string text) {
  const auto twice = [](char16_t a, char16_t b) { return a == 0xFFFD && b == 0xFFFD; };
  text.erase(std::unique(text.begin(), text.end(), twice), text.end());
  return text;
}

TEST(TextEncoding, IllFormedTextIsReplacedAndTheRestKept) {
  const struct {
    std::string utf8;
    std::u16string wide;
  } texts[] = {
      {"a\xFFz", u"a\uFFFDz"},           {"\xC0\xAFz", u"\uFFFDz"},  // overlong
      {"\xE0\x9F\xBFz", u"\uFFFDz"},                                 // overlong
      {"\xED\xA0\x80z", u"\uFFFDz"},                                 // a surrogate
      {"\xF4\x90\x80\x80z", u"\uFFFDz"},                             // past the last character
      {"\xE2\x82z", u"\uFFFDz"},         {"\xF0\x9F\x98", u"\uFFFD"},
  };
  for (const auto& text : texts) EXPECT_EQ(OneReplacementEach(Utf8ToWide(text.utf8)), text.wide);
  const std::u16string surrogates = {u'a', 0xDC00, u'b', 0xD800, 0xD800, 0xDC00, 0xD83D};
  EXPECT_EQ(WideToUtf8(surrogates),
            "a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD\xF0\x90\x80\x80\xEF\xBF\xBD");
}

}  // namespace
}  // namespace talvorn::platform
