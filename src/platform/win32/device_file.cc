#include "platform/device_file.h"

#include <array>

#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// Each name with its terminator.
std::u16string SectionNames(const std::u16string& path) {
  constexpr std::size_t kStep = 64;
  std::u16string names;
  DWORD length = 0;
  do {
    names.resize(names.size() + kStep);
    length = GetPrivateProfileSectionNamesW(ToNative(names.data()),
                                            static_cast<DWORD>(names.size()), ToNative(path));
  } while (length + 2 >= names.size());
  names.resize(length);
  return names;
}

std::u16string AddressOf(const std::u16string& section, const std::u16string& path) {
  std::array<char16_t, kAddressCapacity> text{};
  (void)GetPrivateProfileStringW(ToNative(section), ToNative(std::u16string(kAddressKey)), L"",
                                 ToNative(text.data()), static_cast<DWORD>(text.size()),
                                 ToNative(path));
  text.back() = u'\0';  // the call need not end the text
  return text.data();
}

}  // namespace

std::vector<ListedDevice> ReadDeviceFile(std::u16string_view path) {
  const std::u16string file(path);
  const std::u16string names = SectionNames(file);
  std::vector<ListedDevice> devices;
  for (std::size_t at = 0; at < names.size() && names[at] != u'\0';) {
    const std::u16string name(names.c_str() + at);
    devices.push_back({name, AddressOf(name, file)});
    at += name.size() + 1;
  }
  return devices;
}

}  // namespace talvorn::platform
