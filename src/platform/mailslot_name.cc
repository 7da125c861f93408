#include "platform/mailslot_name.h"

#include <algorithm>
#include <string>

#include "platform/mailslot.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

// That of a file's name on Linux.
constexpr std::size_t kLongestName = 255;

char16_t Small(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
}

}  // namespace

bool IsMailslotName(std::u16string_view name) {
  const std::u16string_view prefix = name.substr(0, kMailslotPrefix.size());
  const std::u16string_view plain = name.substr(prefix.size());
  if (plain.empty() || !std::ranges::equal(prefix, kMailslotPrefix, {}, Small, Small)) return false;
  const bool anyUnfit = std::ranges::any_of(plain, [](char16_t unit) {
    return unit < u' ' || unit == 0x7F || unit == u'/' || unit == u'\\';
  });
  // A file can have the name; a text that is no UTF-16 would share it with others.
  const std::string utf8 = WideToUtf8(plain);
  return !anyUnfit && plain != u"." && plain != u".." && utf8.size() <= kLongestName &&
         Utf8ToWide(utf8) == plain;
}

}  // namespace talvorn::platform
