#include "client/reinitialisation.h"

#include <optional>
#include <string>

#include "platform/address.h"
#include "platform/settings_store.h"
#include "platform/text_encoding.h"
#include "support/settings.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kRequested = 0;

// The address as the name of a value; none for anything but four decimal numbers.
std::optional<std::u16string> ValueName(std::string_view address) {
  const std::string text(address);
  const std::uint32_t number = platform::ParseIpv4(text.c_str());
  if (platform::Ipv4Text(number) != text) return std::nullopt;
  return platform::Utf8ToWide(address);
}

}  // namespace

ReinitialisationStatus RequestReinitialisation(std::string_view address) {
  const auto name = ValueName(address);
  if (!name) return ReinitialisationStatus::kNoAddress;
  platform::SettingsKey key = platform::SettingsKey::Create(kInterfacesKey);
  if (!key.SetNumber(*name, kRequested)) return ReinitialisationStatus::kNotWritten;
  return ReinitialisationStatus::kPending;
}

ReinitialisationStatus QueryReinitialisation(std::string_view address) {
  const auto name = ValueName(address);
  if (!name) return ReinitialisationStatus::kNoAddress;
  const auto number =
      platform::SettingsKey::Open(kInterfacesKey, platform::SettingsAccess::kRead).Number(*name);
  if (!number) return ReinitialisationStatus::kNotAsked;
  return *number == kRequested ? ReinitialisationStatus::kPending : ReinitialisationStatus::kDone;
}

}  // namespace talvorn
