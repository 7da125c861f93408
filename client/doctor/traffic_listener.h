// Hears what devices and other locators say on the networks of this machine. What the machine's
// own locator asks does not come back to it; it is seen departing, where the account may watch.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "discovery/datagram.h"
#include "platform/address.h"
#include "platform/departing_datagrams.h"
#include "platform/socket.h"
#include "platform/waitable.h"
#include "support/settings.h"

namespace talvorn {

// What was heard on one interface.
struct HeardOnInterface {
  std::optional<bool> asked{};                             // by this machine; none: not to be seen
  std::set<std::string> askers{};                          // addresses of other locators
  std::map<std::string, std::set<std::string>> devices{};  // serials, and where they spoke from
};

// Within so long each locator that asks has asked, and devices have answered.
[[nodiscard]] std::uint32_t RequestRoundMs(const RegistryValues& settings);

class TrafficListener {
 public:
  TrafficListener();
  ~TrafficListener();
  TrafficListener(const TrafficListener&) = delete;
  TrafficListener& operator=(const TrafficListener&) = delete;

  // Joins both groups on the interface; `value` is its IPv4 address in network byte order or
  // its IPv6 index. False when it cannot be listened to.
  bool Listen(const std::string& interface, platform::AddressFamily family, std::uint32_t value);

  // Of this machine: who asks from there is no other locator.
  void KnowAsOwn(const platform::HostAddress& address) { own_.insert(address); }

  // Takes in what is said for so long. False when it was interrupted.
  bool ListenFor(std::uint32_t milliseconds, const platform::Waitable* interrupt);

  // By the name of the interface; of each that is listened to.
  [[nodiscard]] const std::map<std::string, HeardOnInterface>& heard() const { return heard_; }

 private:
  struct Ear {
    platform::Socket socket;
    std::string interface;
    bool hearsAnswers = false;  // else requests
  };

  void TakeWhatCameIn();
  void TakeWhatDeparted();
  void Take(const Ear& ear, std::span<const std::byte> datagram,
            const platform::SocketAddress& source);

  const bool libraryStarted_;
  platform::DepartingDatagrams departing_{kDiscoveryPort};
  std::vector<Ear> ears_;
  std::set<platform::HostAddress> own_;
  std::map<std::string, HeardOnInterface> heard_;
};

}  // namespace talvorn
