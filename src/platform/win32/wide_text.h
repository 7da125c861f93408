// UTF-16 text as the Windows calls take it and give it.
#pragma once

#include <cstddef>
#include <string>

namespace talvorn::platform {

static_assert(sizeof(wchar_t) == sizeof(char16_t));

// The same characters, for a call that only reads or writes them.
[[nodiscard]] inline const wchar_t* ToNative(const char16_t* text) {
  return reinterpret_cast<const wchar_t*>(text);
}
[[nodiscard]] inline wchar_t* ToNative(char16_t* text) { return reinterpret_cast<wchar_t*>(text); }
[[nodiscard]] inline const wchar_t* ToNative(const std::u16string& text) {
  return ToNative(text.c_str());
}

[[nodiscard]] inline std::u16string FromNative(const wchar_t* text, std::size_t size) {
  return {text, text + size};
}

}  // namespace talvorn::platform
