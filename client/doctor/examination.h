// Why a technician does not see a device: what stands between the devices and the locator's
// clients, looked at in the order of the way. Reads and listens; a request of its own would
// silence the locators of the network for "Time Master".
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "client/doctor/finding.h"
#include "client/doctor/traffic_listener.h"
#include "client/locator_client.h"
#include "devices/device_record.h"
#include "platform/waitable.h"
#include "support/settings.h"

namespace talvorn {

struct ExaminationOptions {
  std::uint32_t timeoutMs = 3'000;                // of one request to the locator
  const platform::Waitable* interrupt = nullptr;  // breaks the examination off
  std::string subject{};                          // address or serial of one device; empty: all
  // Told before the examination listens for so long. May be empty.
  std::function<void(std::uint32_t milliseconds)> onListening{};
};

// What the checks share: each finds out one thing, says it, and leaves what later ones build on.
struct Examination {
  Examination(const ExaminationOptions& options, TakeFinding take);

  void Ok(std::string_view check, std::string what) const;
  void Warn(std::string_view check, std::string what, std::string advice) const;
  void Fail(std::string_view check, std::string what, std::string advice) const;

  [[nodiscard]] bool Interrupted() const;

  const ExaminationOptions& options;
  const TakeFinding take;
  LocatorClient client;
  RegistryValues settings{};                // in force for a locator that is started now
  bool answers = false;                     // the locator
  std::vector<DeviceRecord> devices{};      // that it knows
  TrafficListener traffic{};                // from the look at the interfaces on
  std::set<std::string> listedAddresses{};  // of static devices, as far as the file tells them
};

// Runs every check. False when it was interrupted.
bool Examine(const ExaminationOptions& options, const TakeFinding& take);

}  // namespace talvorn
