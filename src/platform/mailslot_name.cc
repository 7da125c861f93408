#include "platform/mailslot_name.h"

#include <algorithm>
#include <string>

#include "platform/ascii_case.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

// That of a file's name on Linux.
constexpr std::size_t kLongestName = 255;

// Parts between backslashes, none of which leads nowhere or elsewhere.
bool IsPath(std::u16string_view text) {
  for (;;) {
    const std::size_t end = std::min(text.find(u'\\'), text.size());
    const std::u16string_view part = text.substr(0, end);
    if (part.empty() || part == u"." || part == u"..") return false;
    if (end == text.size()) return true;
    text.remove_prefix(end + 1);
  }
}

}  // namespace

bool IsMailslotName(std::u16string_view name) {
  if (!StartsIgnoringCase(name, kMailslotPrefix)) return false;
  const std::u16string_view plain = name.substr(kMailslotPrefix.size());
  const bool anyUnfit = std::ranges::any_of(
      plain, [](char16_t unit) { return unit < u' ' || unit == 0x7F || unit == u'/'; });
  // A file can have the name; a text that is no UTF-16 would share it with others.
  const std::string utf8 = WideToUtf8(plain);
  return !anyUnfit && IsPath(plain) && utf8.size() <= kLongestName && Utf8ToWide(utf8) == plain;
}

}  // namespace talvorn::platform
