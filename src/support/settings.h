// The locator's settings: values of one registry key, filled by administrators and
// only read here. Every component reads its own record when it starts, so a change
// reaches a component when it reads again.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/settings_store.h"

namespace talvorn {

inline constexpr std::u16string_view kSettingsKey = u"Software\\Kestrow\\TAL-VORN\\Settings";

// Requests for the re-initialisation of an interface: one 32-bit value each, named
// by an IPv4 address; 0 while it is pending, 1 once it has been handled.
inline constexpr std::u16string_view kInterfacesKey = u"SOFTWARE\\Kestrow\\TAL-VORN\\Interfaces";

// Times in milliseconds. A new record holds the defaults.
struct RegistryValues {
  std::uint32_t timeRequest = 5'000;
  std::uint32_t timeMaster = 60'000;
  std::uint32_t timeResponseValid = 10'000;
  std::uint32_t timeResponseValidIfStatic = 30'000;
  std::uint32_t timeRequestGapIfStatic = 5'000;
  std::uint32_t timeNetworkChanges = 1'000;
  std::uint32_t timeMulticastRequestAllowed = 0;
  std::array<char16_t, platform::kSettingsTextCapacity> staticDevicesIniFile{};  // terminated path
  std::uint32_t preferedIpVersion = 4;
  std::uint32_t ipv6Active = 1;
};

// A setting by its name, as administrators know it.
struct SettingName {
  std::u16string_view name;
  std::uint32_t RegistryValues::*number = nullptr;  // null: none of the record's numbers
  bool isText = false;                              // else a number
};

// Every setting there is.
[[nodiscard]] std::span<const SettingName> SettingNames();

inline constexpr std::u16string_view kStaticDevicesSetting = u"TAL-VORN INI-File Static Devices";
inline constexpr std::u16string_view kDebugViewSetting = u"DebugView";
inline constexpr std::u16string_view kLogPathSetting = u"Log Path";

// Fills every field from the registry, or with its default where the value is
// missing, of another type or too large. False, with the record untouched, when the
// key cannot be opened.
bool RetrieveValues(RegistryValues& values);

// The switch of the trace: "DebugView" as stored, 0 when it cannot be had.
[[nodiscard]] std::uint32_t ReadDebugView();

inline constexpr std::size_t kLogPathCapacity = platform::kSettingsTextCapacity;
// "Log Path", terminated; empty when it cannot be had.
[[nodiscard]] std::array<char, kLogPathCapacity> ReadLogPath();

}  // namespace talvorn
