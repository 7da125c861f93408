#include "support/settings.h"

#include <algorithm>
#include <optional>
#include <string>

#include "platform/settings_store.h"

namespace talvorn {
namespace {

using platform::SettingsAccess;
using platform::SettingsKey;

// The text with zeros behind it; nothing but zeros when there is none.
template <class Char, std::size_t kCapacity>
std::array<Char, kCapacity> Padded(const std::optional<std::basic_string<Char>>& text) {
  std::array<Char, kCapacity> padded{};
  if (text) std::ranges::copy(*text, padded.begin());
  return padded;
}

constexpr auto kNames = std::to_array<SettingName>({
    {u"Time Request", &RegistryValues::timeRequest},
    {u"Time Master", &RegistryValues::timeMaster},
    {u"Time Multicast Request Allowed", &RegistryValues::timeMulticastRequestAllowed},
    {u"Time Response Valid", &RegistryValues::timeResponseValid},
    {u"Time Network Changes", &RegistryValues::timeNetworkChanges},
    {u"IPv6 Active", &RegistryValues::ipv6Active},
    {u"Prefered IP Version", &RegistryValues::preferedIpVersion},
    {.name = kStaticDevicesSetting, .isText = true},
    {u"Time Request Gap IFSTATIC", &RegistryValues::timeRequestGapIfStatic},
    {u"Time Response Valid IFSTATIC", &RegistryValues::timeResponseValidIfStatic},
    {.name = kDebugViewSetting},
    {.name = kLogPathSetting, .isText = true},
});

}  // namespace

std::span<const SettingName> SettingNames() { return kNames; }

bool RetrieveValues(RegistryValues& values) {
  const SettingsKey key = SettingsKey::Open(kSettingsKey, SettingsAccess::kRead);
  if (!key.valid()) return false;

  const RegistryValues defaults;
  for (const SettingName& one : kNames) {
    if (one.number != nullptr)
      values.*one.number = key.Number(one.name).value_or(defaults.*one.number);
  }
  values.staticDevicesIniFile =
      Padded<char16_t, platform::kSettingsTextCapacity>(key.Text(kStaticDevicesSetting));
  return true;
}

std::uint32_t ReadDebugView() {
  return SettingsKey::Open(kSettingsKey, SettingsAccess::kRead)
      .Number(kDebugViewSetting)
      .value_or(0);
}

std::array<char, kLogPathCapacity> ReadLogPath() {
  return Padded<char, kLogPathCapacity>(
      SettingsKey::Open(kSettingsKey, SettingsAccess::kRead).NarrowText(kLogPathSetting));
}

}  // namespace talvorn
