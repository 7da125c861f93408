// Answers the status query over TCP for the simulated devices of one interface: who
// connects to an address of it is answered by the device whose address that is. One
// thread listens, and each connection has its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "devices/status_frame.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "simulator/device_model.h"
#include "simulator/status_reply.h"
#include "support/run_flag.h"

namespace talvorn {

class StatusServer {
 public:
  // Called by several threads at once.
  using Log = std::function<void(const std::string& line)>;

  // `addresses`: those that the devices are spread over, in network byte order; the
  // first device has the first one. `model` outlives the server.
  StatusServer(const DeviceModel& model, std::vector<std::uint32_t> addresses, StatusFault fault,
               Log log);
  ~StatusServer();
  StatusServer(const StatusServer&) = delete;
  StatusServer& operator=(const StatusServer&) = delete;

  // False when the port cannot be had. The port 0 is any free one.
  [[nodiscard]] bool Open(std::uint16_t port = kStatusPort);
  [[nodiscard]] std::uint16_t port() const { return listener_.LocalAddress().port(); }

  // Answers from now on; what the devices say counts from `startMs` on the monotonic
  // clock. False when no thread can be had.
  [[nodiscard]] bool Start(std::uint64_t startMs);
  // Ends every connection.
  void Stop();

  [[nodiscard]] std::uint64_t queries() const { return queries_; }

 private:
  struct Connection;

  void Listen();
  bool Accept();  // false when there was none, or no room for it
  void Serve(Connection& connection);
  [[nodiscard]] std::optional<std::uint32_t> DeviceAt(std::uint32_t address) const;

  const DeviceModel& model_;
  const std::vector<std::uint32_t> addresses_;
  const StatusFault fault_;
  const Log log_;
  platform::Socket listener_;
  std::uint64_t startMs_ = 0;
  std::atomic<std::uint64_t> queries_{0};
  RunFlag running_;
  platform::Thread thread_;
  std::list<Connection> connections_;  // the listening thread's
};

}  // namespace talvorn
