#include "simulator/status_server.h"

#include <gtest/gtest.h>

#include <array>
#include <mutex>
#include <set>

#include "platform/clock.h"
#include "testing/socket_library.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::Socket;
using platform::WaitStatus;

constexpr std::uint32_t kGenerousMs = 30'000;
constexpr const char* kUuid = "SID=01234567-89ab-cdef-0123-456789abcdef";

std::uint32_t Address(const char* text) { return platform::ParseIpv4(text); }

struct Server {
  explicit Server(StatusFault fault)
      : model({.devices = 2}, {.ipv4 = {"127.0.0.1", "127.0.0.2"}, .ipv6 = {}}),
        server(model, {Address("127.0.0.1"), Address("127.0.0.2"), Address("127.0.0.3")}, fault,
               [this](const std::string& line) {
                 const std::lock_guard guard(lock);
                 log.insert(line);
               }) {
    EXPECT_TRUE(server.Open(0));
    EXPECT_TRUE(server.Start(platform::MonotonicMs()));
  }

  // Has sent a request.
  [[nodiscard]] Socket Ask(const char* address) const {
    Socket socket = Socket::Create(platform::AddressFamily::kIpv4, platform::SocketType::kStream);
    const auto peer = platform::SocketAddress::Ipv4(Address(address), server.port());
    EXPECT_NE(socket.Connect(peer), platform::ConnectStatus::kFailed);
    EXPECT_EQ(socket.WaitWritable(kGenerousMs), WaitStatus::kSignalled);
    EXPECT_EQ(socket.Send(EncodeStatusRequest(kUuid)), kStatusRequestSize);
    return socket;
  }
  bool Logged(const std::string& line) {
    const std::lock_guard guard(lock);
    return log.contains(line);
  }

  DeviceModel model;
  std::mutex lock;
  std::set<std::string> log;
  StatusServer server;
};

// What comes next, up to one buffer; 0 when the server has closed.
std::optional<std::size_t> Read(Socket& socket) {
  std::array<std::byte, 2'000> buffer;
  if (socket.WaitReadable(kGenerousMs) != WaitStatus::kSignalled) return std::nullopt;
  return socket.Receive(buffer);
}

TEST(StatusServer, TheAddressTellsTheDevice) {
  Server server(StatusFault::kNone);
  Socket first = server.Ask("127.0.0.1");
  Socket second = server.Ask("127.0.0.2");
  EXPECT_EQ(Read(first), 379u);
  EXPECT_EQ(Read(second), 379u);
  Socket nobody = server.Ask("127.0.0.3");
  EXPECT_EQ(Read(nobody).value_or(0), 0u);
  EXPECT_TRUE(testing::WaitUntil([&] { return server.server.queries() == 3; }));
  EXPECT_TRUE(server.Logged(std::string("status query at 127.0.0.2, ") + kUuid));
  EXPECT_TRUE(server.Logged("status query at 127.0.0.3, where no device is"));
}

TEST(StatusServer, ManyAreServedAtOnceAndStopIsPrompt) {
  Server server(StatusFault::kSilent);
  std::vector<Socket> silent;
  for (int i = 0; i < 50; ++i) silent.push_back(server.Ask("127.0.0.1"));
  EXPECT_TRUE(testing::WaitUntil([&] { return server.server.queries() == 50; }));
  server.server.Stop();
  for (Socket& socket : silent) EXPECT_EQ(Read(socket).value_or(0), 0u);
}

}  // namespace
}  // namespace talvorn
