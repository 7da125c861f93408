// A text as it is handed to the event log.
#pragma once

#include <string>
#include <string_view>

namespace talvorn::platform {

// A blank behind the percent sign, so that the event viewer does not expand "%1" or "%%1".
[[nodiscard]] inline std::u16string EventText(std::u16string_view text) {
  std::u16string shown;
  for (std::size_t i = 0; i < text.size(); ++i) {
    shown.push_back(text[i]);
    const char16_t next = i + 1 < text.size() ? text[i + 1] : u'\0';
    if (text[i] == u'%' && (next == u'%' || (next >= u'0' && next <= u'9'))) shown.push_back(u' ');
  }
  return shown;
}

}  // namespace talvorn::platform
