#include "platform/ini_file.h"

#include <algorithm>
#include <new>
#include <string>

#include "platform/win32/dword_size.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

// Whatever the call left there, the text in the buffer ends in it.
std::uint32_t Terminated(std::span<char16_t> buffer, DWORD length) {
  const std::size_t end = std::min<std::size_t>(length, buffer.size() - 1);
  buffer[end] = u'\0';
  return static_cast<std::uint32_t>(end);
}

}  // namespace

std::uint32_t ProfileSectionNames(std::span<char16_t> names, std::u16string_view path) {
  if (names.empty()) return 0;
  names[0] = u'\0';
  // Without room for a name and two terminators there is nothing to ask for.
  if (names.size() <= 2) {
    names.back() = u'\0';
    return 0;
  }
  try {
    const DWORD length = GetPrivateProfileSectionNamesW(
        ToNative(names.data()), DwordSize(names.size()), ToNative(std::u16string(path)));
    const std::uint32_t end = Terminated(names, length);
    if (end + 1 < names.size()) names[end + 1] = u'\0';  // cut names end in two
    return end;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

std::uint32_t ProfileString(std::u16string_view section, std::u16string_view key,
                            std::span<char16_t> value, std::u16string_view path) {
  if (value.empty()) return 0;
  value[0] = u'\0';
  try {
    const DWORD length = GetPrivateProfileStringW(
        ToNative(std::u16string(section)), ToNative(std::u16string(key)), L"",
        ToNative(value.data()), DwordSize(value.size()), ToNative(std::u16string(path)));
    return Terminated(value, length);
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

}  // namespace talvorn::platform
