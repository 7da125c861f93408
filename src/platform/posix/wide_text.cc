#include "platform/posix/wide_text.h"

#include <algorithm>

namespace talvorn::platform {
namespace {

char16_t Capital(char16_t unit) {
  constexpr char16_t kDivisionSign = 0x00F7;
  const bool letter =
      (unit >= u'a' && unit <= u'z') || (unit >= 0x00E0 && unit <= 0x00FE && unit != kDivisionSign);
  return letter ? static_cast<char16_t>(unit - 0x20) : unit;
}

}  // namespace

std::u16string FoldCase(std::u16string_view text) {
  std::u16string folded(text);
  std::transform(folded.begin(), folded.end(), folded.begin(), Capital);
  return folded;
}

bool EqualWithoutCase(std::u16string_view a, std::u16string_view b) {
  return FoldCase(a) == FoldCase(b);
}

std::u16string DecodeUtf16(std::string_view bytes, ByteOrder order) {
  std::u16string text;
  text.reserve(bytes.size() / 2);
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const auto first = static_cast<unsigned char>(bytes[i]);
    const auto second = static_cast<unsigned char>(bytes[i + 1]);
    const int unit = order == ByteOrder::kLittleEndian ? first | second << 8 : first << 8 | second;
    text.push_back(static_cast<char16_t>(unit));
  }
  return text;
}

std::u16string_view TrimBlanks(std::u16string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

}  // namespace talvorn::platform
