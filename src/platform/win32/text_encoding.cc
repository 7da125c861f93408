#include "platform/text_encoding.h"

#include <limits>

#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// The most that one call converts.
constexpr std::size_t kLongest = std::numeric_limits<int>::max();

std::u16string ToWide(UINT codePage, std::string_view text) {
  if (text.empty() || text.size() > kLongest) return {};
  const auto size = static_cast<int>(text.size());
  const int length = MultiByteToWideChar(codePage, 0, text.data(), size, nullptr, 0);
  if (length <= 0) return {};
  std::u16string wide(static_cast<std::size_t>(length), u'\0');
  (void)MultiByteToWideChar(codePage, 0, text.data(), size, ToNative(wide.data()), length);
  return wide;
}

std::string ToMultiByte(UINT codePage, DWORD flags, const char* replacement,
                        std::u16string_view text) {
  if (text.empty() || text.size() > kLongest) return {};
  const auto size = static_cast<int>(text.size());
  const wchar_t* const wide = ToNative(text.data());
  const int length =
      WideCharToMultiByte(codePage, flags, wide, size, nullptr, 0, replacement, nullptr);
  if (length <= 0) return {};
  std::string bytes(static_cast<std::size_t>(length), '\0');
  (void)WideCharToMultiByte(codePage, flags, wide, size, bytes.data(), length, replacement,
                            nullptr);
  return bytes;
}

}  // namespace

std::u16string NarrowToWide(std::string_view text) { return ToWide(CP_ACP, text); }

std::string WideToNarrow(std::u16string_view text) {
  // For UTF-8 the call takes neither the flag nor a replacement.
  if (GetACP() == CP_UTF8) return WideToUtf8(text);
  return ToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, "?", text);
}

std::string WideToUtf8(std::u16string_view text) { return ToMultiByte(CP_UTF8, 0, nullptr, text); }

std::u16string Utf8ToWide(std::string_view text) { return ToWide(CP_UTF8, text); }

}  // namespace talvorn::platform
