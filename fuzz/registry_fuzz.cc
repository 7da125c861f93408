// A settings file of any content: setting one value leaves every other value alone,
// and the value reads back.
#include <string>

#include "fuzz_target.h"
#include "platform/posix/forms/registry_file.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace talvorn::platform;
  constexpr std::u16string_view kPath = u"SOFTWARE\\Kestrow\\TAL-VORN\\Interfaces";
  const std::u16string name = u"192.168.1.10";
  const RegistryFile file(std::string(reinterpret_cast<const char*>(data), size));
  const auto changed = file.WithDwords(kPath, {&name, 1}, 1);
  FUZZ_EXPECT(changed.has_value() == file.HasKey(kPath));
  if (!changed) return 0;

  const auto before = file.ValuesOf(kPath);
  const auto after = RegistryFile(*changed).ValuesOf(kPath);
  std::size_t others = 0;
  bool found = false;
  for (const RegistryValue& value : after) {
    if (value.name == name) {
      FUZZ_EXPECT(value.type == 4 && value.data.size() == 4 && value.data[0] == std::byte{1});
      found = true;
    } else {
      ++others;
    }
  }
  FUZZ_EXPECT(found);
  for (const RegistryValue& value : before) {
    if (value.name != name) --others;
  }
  FUZZ_EXPECT(others == 0);
  return 0;
}
