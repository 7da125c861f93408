#include "client/reinitialisation.h"

#include <array>
#include <optional>
#include <span>
#include <string>

#include "platform/address.h"
#include "platform/registry.h"
#include "platform/text_encoding.h"
#include "support/byte_io.h"
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
  platform::RegistryKey key = platform::RegistryKey::Create(kInterfacesKey);
  if (!key.valid() || !key.SetDword(*name, kRequested)) return ReinitialisationStatus::kNotWritten;
  return ReinitialisationStatus::kPending;
}

ReinitialisationStatus QueryReinitialisation(std::string_view address) {
  const auto name = ValueName(address);
  if (!name) return ReinitialisationStatus::kNoAddress;
  const platform::RegistryKey key =
      platform::RegistryKey::Open(kInterfacesKey, platform::RegistryAccess::kRead);
  if (!key.valid()) return ReinitialisationStatus::kNotAsked;
  std::array<std::byte, 4> data{};
  const platform::RegistryResult result = key.Query(*name, data);
  if (result.status != platform::RegistryStatus::kOk || result.size != data.size() ||
      result.type != platform::kRegistryDword) {
    return ReinitialisationStatus::kNotAsked;
  }
  return ByteReader(data).U32Little() == kRequested ? ReinitialisationStatus::kPending
                                                    : ReinitialisationStatus::kDone;
}

}  // namespace talvorn
