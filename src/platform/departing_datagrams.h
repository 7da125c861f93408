// UDP datagrams on their way out of this machine, whichever program sent them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace talvorn::platform {

struct DepartingDatagram {
  std::string interface {};  // the name of the one it leaves through
  std::vector<std::byte> payload{};
};

// Sees those that go to one port of anybody, over both versions of IP, behind whatever the
// firewall lets through.
class DepartingDatagrams {
 public:
  explicit DepartingDatagrams(std::uint16_t port);
  ~DepartingDatagrams();
  DepartingDatagrams(const DepartingDatagrams&) = delete;
  DepartingDatagrams& operator=(const DepartingDatagrams&) = delete;

  // False where the account may not watch (on Linux it needs CAP_NET_RAW), and on Windows.
  [[nodiscard]] bool valid() const { return state_ != nullptr; }

  // What has left since the last call. Does not wait.
  [[nodiscard]] std::vector<DepartingDatagram> Take();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace talvorn::platform
