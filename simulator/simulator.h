// Puts the simulated devices on a network: hears the requests of locators on one
// interface and sends the devices' answers and announcements, each from the address
// of its device. One thread does all of that; the status query has threads of its own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/socket.h"
#include "platform/waitable.h"
#include "simulator/answer_schedule.h"
#include "simulator/device_model.h"
#include "simulator/options.h"
#include "simulator/status_server.h"

namespace talvorn {

class Simulator {
 public:
  using Log = std::function<void(const std::string& line)>;

  // `log` is told what is heard and sent, by several threads but one at a time.
  Simulator(const SimulatorOptions& options, Log log);

  // Opens the sockets, after a wait for IPv6 addresses that the system still checks.
  // Returns what is in the way, as a text without full stop.
  [[nodiscard]] std::optional<std::string> Open(const platform::Waitable& interrupt);

  // "12 devices on demo0 (IPv4, IPv6)".
  [[nodiscard]] std::string Summary() const;

  // Sends `fileDatagrams` once and then lives until `interrupt` is signalled or the
  // time given in the options is over.
  void Run(const platform::Waitable& interrupt,
           std::span<const std::vector<std::byte>> fileDatagrams);

  struct Counts {
    std::uint64_t requestsHeard = 0;
    std::uint64_t sent = 0;
    std::uint64_t failed = 0;  // could not be sent
    std::uint64_t statusQueries = 0;
  };
  [[nodiscard]] const Counts& counts() const { return counts_; }

 private:
  // The sockets of one address family.
  struct Port {
    platform::AddressFamily family = platform::AddressFamily::kUnspecified;
    platform::SocketAddress requestGroup;
    platform::SocketAddress responseGroup;
    platform::Socket requests;              // hears the request group
    std::vector<platform::Socket> senders;  // one for each address of the interface
    std::uint32_t address = 0;              // IPv4: the first one, network byte order
  };
  struct Local {
    platform::SocketAddress address;  // port 0
    std::uint32_t interfaceValue = 0;
  };

  [[nodiscard]] std::optional<std::string> OpenStatusServer(const std::vector<Local>& locals);
  [[nodiscard]] std::optional<std::string> OpenPort(platform::AddressFamily family,
                                                    const std::vector<Local>& locals);
  void Multicast(const platform::Waitable& interrupt,
                 std::span<const std::vector<std::byte>> fileDatagrams);
  [[nodiscard]] Port* FindPort(platform::AddressFamily family);
  void HearRequests(Port& port, std::uint64_t nowMs);
  // True when more is due than one call sends.
  bool SendDue(std::uint64_t nowMs);
  void SendAnswer(Port& port, std::uint32_t device, std::span<const std::byte> answer);
  void SendOwnRequests();
  void Send(platform::Socket& socket, std::span<const std::byte> datagram,
            const platform::SocketAddress& destination);

  SimulatorOptions options_;
  Log log_;
  std::optional<DeviceModel> model_;
  AnswerSchedule schedule_;
  std::uint64_t startMs_ = 0;
  std::vector<Port> ports_;
  std::optional<StatusServer> statusServer_;
  Counts counts_;
};

}  // namespace talvorn
