// The interfaces of this machine, with what discovery makes of them.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/doctor/traffic_listener.h"
#include "platform/network_interfaces.h"

namespace talvorn {

struct ExaminedInterface {
  platform::InterfaceDescription description;
  std::vector<std::uint32_t> ipv4{};  // usable addresses, network byte order
  bool ipv6 = false;

  [[nodiscard]] bool used() const { return !ipv4.empty() || ipv6; }
};

[[nodiscard]] std::vector<ExaminedInterface> ExamineInterfaces(bool ipv6Active);
// As the settings in force are.
[[nodiscard]] std::vector<ExaminedInterface> ExamineInterfaces();

// What it is used with: "192.168.10.1 IPv6".
[[nodiscard]] std::string UsedAddresses(const ExaminedInterface& interface);

struct ReasonUnused {
  std::string_view what;  // " is down"
  std::string_view advice;
};
[[nodiscard]] ReasonUnused WhyUnused(const platform::InterfaceDescription& description);

// Its own addresses are known to `traffic` from now on, whether it is used or not.
void KnowOwnAddresses(TrafficListener& traffic, const ExaminedInterface& interface);

// Listens on it as far as it is used. False when part of it cannot be listened to.
bool ListenOn(TrafficListener& traffic, const ExaminedInterface& interface);

// What is heard on the interfaces within so long, or until `interrupt`, by their names.
[[nodiscard]] std::map<std::string, HeardOnInterface> HearOn(
    std::span<const ExaminedInterface> interfaces, std::uint32_t milliseconds,
    const platform::Waitable* interrupt);

}  // namespace talvorn
