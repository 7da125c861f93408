// Interfaces as the system would list them, and threads that only wait for their end.
#pragma once

#include <mutex>
#include <set>

#include "app/interface_watch.h"
#include "platform/socket.h"
#include "testing/wait_until.h"

namespace talvorn::testing {

using Ids = std::multiset<std::uint32_t>;

inline std::uint32_t Address(const char* text) { return platform::ParseIpv4(text); }

inline platform::Ipv4AddressRow Row(const char* address,
                                    std::uint16_t type = platform::kIpv4AddressPrimary) {
  return {.address = Address(address), .mask = Address("255.255.255.0"), .type = type};
}

inline platform::Ipv6Adapter Adapter(std::uint32_t index) {
  return {.ipv6IfIndex = index,
          .flags = platform::kAdapterIpv6Enabled,
          .operStatus = platform::kOperStatusUp,
          .ifType = platform::kIfTypeEthernet};
}

// What is known of the threads that run.
struct InterfaceThreads {
  std::mutex lock;
  Ids running;
  Ids ownAtStart;  // the IPv4 addresses that were known as own when their threads started
};
inline InterfaceThreads interfaceThreads;

inline std::uint32_t RunUntilStopped(const ThreadItem& item) {
  auto& [lock, running, ownAtStart] = interfaceThreads;
  const platform::Waitable* const cleared[] = {&item.running.cleared()};
  {
    const std::lock_guard guard(lock);
    running.insert(item.id);
    if (item.ownRequests->Sent(platform::SocketAddress::Ipv4(item.id, 1)))
      ownAtStart.insert(item.id);
  }
  while (item.running) (void)platform::WaitForAny(cleared, std::nullopt);
  const std::lock_guard guard(lock);
  running.erase(running.find(item.id));
  return 0;
}

inline bool Runs(const Ids& ids) {
  return WaitUntil([&] {
    const std::lock_guard guard(interfaceThreads.lock);
    return interfaceThreads.running == ids;
  });
}

}  // namespace talvorn::testing
