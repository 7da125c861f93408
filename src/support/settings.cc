#include "support/settings.h"

#include <cstddef>
#include <cstring>
#include <optional>
#include <span>

#include "platform/registry.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

using platform::RegistryAccess;
using platform::RegistryKey;
using platform::RegistryResult;
using platform::RegistryStatus;

std::optional<std::uint32_t> QueryDword(const RegistryKey& key, std::u16string_view name) {
  std::array<std::byte, 4> data{};
  const RegistryResult result = key.Query(name, data);
  if (result.status != RegistryStatus::kOk || result.type != platform::kRegistryDword ||
      result.size != data.size()) {
    return std::nullopt;
  }
  return ByteReader(data).U32Little();
}

using PathField = decltype(RegistryValues::staticDevicesIniFile);

// Text of at most 1023 characters; anything else counts as missing.
PathField QueryPath(const RegistryKey& key, std::u16string_view name) {
  std::array<std::byte, sizeof(PathField)> data{};
  const RegistryResult result = key.Query(name, data);
  PathField path{};
  if (result.status != RegistryStatus::kOk || result.type != platform::kRegistryString ||
      result.size > data.size()) {
    return path;
  }
  ByteReader reader{std::span(data).first(result.size)};
  for (char16_t& unit : path) {
    unit = static_cast<char16_t>(reader.U16Little());
    if (unit == u'\0') return path;
  }
  return {};  // all 1024 units used: longer than the field holds
}

}  // namespace

bool RetrieveValues(RegistryValues& values) {
  const RegistryKey key = RegistryKey::Open(kSettingsKey, RegistryAccess::kRead);
  if (!key.valid()) return false;

  const RegistryValues defaults;
  const auto number = [&key](std::u16string_view name, std::uint32_t missing) {
    return QueryDword(key, name).value_or(missing);
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
  values.staticDevicesIniFile = QueryPath(key, u"TAL-VORN INI-File Static Devices");
  values.preferedIpVersion = number(u"Prefered IP Version", defaults.preferedIpVersion);
  values.ipv6Active = number(u"IPv6 Active", defaults.ipv6Active);
  return true;
}

std::uint32_t ReadDebugView() {
  const RegistryKey key = RegistryKey::Open(kSettingsKey, RegistryAccess::kRead);
  return key.valid() ? QueryDword(key, u"DebugView").value_or(0) : 0;
}

std::array<char, kLogPathCapacity> ReadLogPath() {
  std::array<char, kLogPathCapacity> path{};
  const RegistryKey key = RegistryKey::Open(kSettingsKey, RegistryAccess::kRead);
  if (!key.valid()) return path;
  const RegistryResult result = key.QueryNarrow(u"Log Path", path);
  if (result.status != RegistryStatus::kOk || result.type != platform::kRegistryString) path = {};
  path.back() = '\0';
  return path;
}

}  // namespace talvorn
