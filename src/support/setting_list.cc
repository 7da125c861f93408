#include "support/setting_list.h"

#include <algorithm>

#include "platform/ascii_case.h"
#include "platform/settings_store.h"
#include "support/settings.h"

namespace talvorn {
namespace {

using platform::SettingsKey;

bool IsSame(std::u16string_view left, std::u16string_view right) {
  return platform::EqualsIgnoringCase(left, right);
}

std::uint32_t DefaultOf(const SettingName& setting) {
  return setting.number == nullptr ? 0 : RegistryValues{}.*setting.number;
}

SettingInForce InForce(const SettingsKey& key, const SettingName& setting, bool isThere) {
  SettingInForce inForce{.name = setting.name, .value = {}};
  bool usable = false;
  if (setting.isText) {
    auto text = key.Text(setting.name);
    usable = text.has_value();
    inForce.value = std::move(text).value_or(u"");
  } else {
    const auto number = key.Number(setting.name);
    usable = number.has_value();
    inForce.value = number.value_or(DefaultOf(setting));
  }
  if (isThere) inForce.source = usable ? SettingSource::kStored : SettingSource::kUnusable;
  return inForce;
}

}  // namespace

SettingList ReadSettingList() {
  const SettingsKey key = SettingsKey::Open(kSettingsKey, platform::SettingsAccess::kRead);
  const std::vector<std::u16string> names = key.Names();
  SettingList list{.stored = key.valid(), .known = {}, .unknown = {}};
  for (const SettingName& setting : SettingNames()) {
    const bool isThere = std::ranges::any_of(
        names, [&](const std::u16string& name) { return IsSame(name, setting.name); });
    list.known.push_back(InForce(key, setting, isThere));
  }
  for (const std::u16string& name : names) {
    const bool known = std::ranges::any_of(
        SettingNames(), [&](const SettingName& one) { return IsSame(name, one.name); });
    if (!known) list.unknown.push_back(name);
  }
  return list;
}

}  // namespace talvorn
