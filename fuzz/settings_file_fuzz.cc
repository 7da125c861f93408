// A settings file of any content: setting one value leaves every other value alone,
// and the value reads back.
#include <string>

#include "fuzz_target.h"
#include "platform/posix/forms/settings_file.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace talvorn::platform;
  constexpr std::string_view kPath = "SOFTWARE\\Kestrow\\TAL-VORN\\Interfaces";
  const std::string name = "192.168.1.10";
  const SettingsFile file(std::string(reinterpret_cast<const char*>(data), size));
  const auto changed = file.WithNumbers(kPath, {&name, 1}, 1);
  FUZZ_EXPECT(changed.has_value() == file.HasKey(kPath));
  if (!changed) return 0;

  const auto before = file.ValuesOf(kPath);
  const SettingsFile reread(*changed);
  const auto after = reread.ValuesOf(kPath);
  std::size_t others = 0;
  bool found = false;
  for (const Setting* const value : after) {
    if (value->name == name) {
      FUZZ_EXPECT(value->type == SettingType::kNumber && value->data == std::string("\1\0\0\0", 4));
      found = true;
    } else {
      ++others;
    }
  }
  FUZZ_EXPECT(found);
  for (const Setting* const value : before) {
    if (value->name != name) --others;
  }
  FUZZ_EXPECT(others == 0);
  return 0;
}
