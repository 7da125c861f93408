#include "platform/ini_file.h"

#include <new>
#include <string>

#include "platform/posix/forms/ini_text.h"
#include "platform/posix/forms/regular_file.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

// Empty when the file cannot be read.
IniText ReadIniText(std::u16string_view path) {
  const auto content = ReadTextFile(WideToUtf8(path));
  return IniText(content ? std::string_view(content->bytes) : std::string_view());
}

}  // namespace

std::uint32_t ProfileSectionNames(std::span<char16_t> names, std::u16string_view path) {
  try {
    return ReadIniText(path).SectionNames(names);
  } catch (const std::bad_alloc&) {
    if (!names.empty()) names[0] = u'\0';
    return 0;
  }
}

std::uint32_t ProfileString(std::u16string_view section, std::u16string_view key,
                            std::span<char16_t> value, std::u16string_view path) {
  try {
    return ReadIniText(path).String(section, key, value);
  } catch (const std::bad_alloc&) {
    if (!value.empty()) value[0] = u'\0';
    return 0;
  }
}

}  // namespace talvorn::platform
