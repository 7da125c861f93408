// The settings one by one, for those who show or examine them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace talvorn {

enum class SettingSource {
  kDefault,   // nothing is stored
  kStored,    // what is stored holds
  kUnusable,  // what is stored has another type or is too large: the default holds
};

struct SettingInForce {
  std::u16string_view name;
  std::variant<std::uint32_t, std::u16string> value;
  SettingSource source = SettingSource::kDefault;
};

struct SettingList {
  bool stored = false;                  // there is a place for settings that can be read
  std::vector<SettingInForce> known;    // every setting there is
  std::vector<std::u16string> unknown;  // names of other values that stand there
};

// What holds for a locator that is started now.
[[nodiscard]] SettingList ReadSettingList();

}  // namespace talvorn
