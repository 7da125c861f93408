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

}  // namespace

bool RetrieveValues(RegistryValues& values) {
  const SettingsKey key = SettingsKey::Open(kSettingsKey, SettingsAccess::kRead);
  if (!key.valid()) return false;

  const RegistryValues defaults;
  const auto number = [&key](std::u16string_view name, std::uint32_t missing) {
    return key.Number(name).value_or(missing);
  };
  values.timeRequest = number(u"Time Request", defaults.timeRequest);
  values.timeMaster = number(u"Time Master", defaults.timeMaster);
  values.timeResponseValid = number(u"Time Response Valid", defaults.timeResponseValid);
  values.timeResponseValidIfStatic =
      number(u"Time Response Valid IFSTATIC", defaults.timeResponseValidIfStatic);
  values.timeRequestGapIfStatic =
      number(u"Time Request Gap IFSTATIC", defaults.timeRequestGapIfStatic);
  values.timeNetworkChanges = number(u"Time Network Changes", defaults.timeNetworkChanges);
  values.timeMulticastRequestAllowed =
      number(u"Time Multicast Request Allowed", defaults.timeMulticastRequestAllowed);
  values.staticDevicesIniFile = Padded<char16_t, platform::kSettingsTextCapacity>(
      key.Text(u"TAL-VORN INI-File Static Devices"));
  values.preferedIpVersion = number(u"Prefered IP Version", defaults.preferedIpVersion);
  values.ipv6Active = number(u"IPv6 Active", defaults.ipv6Active);
  return true;
}

std::uint32_t ReadDebugView() {
  return SettingsKey::Open(kSettingsKey, SettingsAccess::kRead).Number(u"DebugView").value_or(0);
}

std::array<char, kLogPathCapacity> ReadLogPath() {
  return Padded<char, kLogPathCapacity>(
      SettingsKey::Open(kSettingsKey, SettingsAccess::kRead).NarrowText(u"Log Path"));
}

}  // namespace talvorn
