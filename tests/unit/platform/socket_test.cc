#include "platform/socket.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/thread.h"
#include "testing/receive_errors.h"
#include "testing/socket_library.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kGenerousMs = 30'000;
const std::uint32_t kLoopback = ParseIpv4("127.0.0.1");

Socket Sender() { return Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram); }

Socket Receiver() {
  Socket socket = Socket::CreateReceiver(AddressFamily::kIpv4);
  EXPECT_EQ(socket.Bind(SocketAddress::Ipv4(kLoopback, 0)), BindOutcome::kBound);
  return socket;
}

bool Send(Socket& socket, const SocketAddress& destination, std::string_view text) {
  return socket.SendTo(std::as_bytes(std::span(text)), destination) == text.size();
}

WaitStatus WaitForSocket(const Socket& socket) {
  const Waitable* const waited[] = {&socket};
  return WaitForAny(waited, kGenerousMs);
}

struct Received {
  bool alive = false;  // the socket
  std::vector<std::string> texts{};
  bool operator==(const Received&) const = default;
};
Received Receive(Socket& socket) {
  Datagrams datagrams;
  const auto taken = socket.Receive(datagrams);
  Received received{taken.has_value()};
  for (std::size_t i = 0; i < taken.value_or(0); ++i) {
    const auto datagram = datagrams[i];
    received.texts.emplace_back(reinterpret_cast<const char*>(datagram.data()), datagram.size());
  }
  return received;
}

// Waits for `count` texts.
std::vector<std::string> Await(Socket& socket, std::size_t count) {
  std::vector<std::string> texts;
  while (texts.size() < count && WaitForSocket(socket) == WaitStatus::kSignalled) {
    for (std::string& text : Receive(socket).texts) texts.push_back(std::move(text));
  }
  return texts;
}

TEST(Socket, ThatCouldNotBeMadeFailsWithoutHarm) {
  ArmFault(Fault::kSocketCreate, 1);
  Socket none = Socket::CreateReceiver(AddressFamily::kIpv4);
  DisarmFaults();
  const auto group = SocketAddress::Parse("239.255.240.1", 4817);
  EXPECT_FALSE(none.valid());
  EXPECT_EQ(none.Bind(SocketAddress::Ipv4(0, 0)), BindOutcome::kFailed);
  EXPECT_FALSE(none.JoinGroup(group, 0) || none.RejoinGroup());
  EXPECT_FALSE(Send(none, group, "lost"));
  EXPECT_EQ(none.WaitReadable({}), WaitStatus::kFailed);
  EXPECT_FALSE(Receive(none).alive);
}

TEST(Socket, AListenerHasItsPortForItself) {
  const auto listen = [](std::uint16_t port) {
    Socket socket = Socket::Create(AddressFamily::kIpv4, SocketType::kStream);
    const bool listens = socket.ClaimAddress() &&
                         socket.Bind(SocketAddress::Ipv4(0, port)) == BindOutcome::kBound &&
                         socket.Listen(1);
    return listens ? std::move(socket) : Socket();
  };
  const Socket first = listen(0);
  ASSERT_TRUE(first.valid());
  EXPECT_FALSE(listen(first.LocalAddress().port()).valid());
}

TEST(Datagrams, ComeInOrderAndEachByItself) {
  Socket receiver = Receiver();
  Socket sender = Sender();
  std::vector<std::string> sent = {"", "first", std::string(2'000, 'x'), "after a long one"};
  while (sent.size() < 2 * Datagrams::kMost + 3) sent.push_back(std::to_string(sent.size()));
  for (const std::string& text : sent) ASSERT_TRUE(Send(sender, receiver.LocalAddress(), text));
  sent[2].resize(Datagrams::kLargest);
  EXPECT_EQ(Await(receiver, sent.size()), sent);
}

TEST(Datagrams, ThatWereNotForTheGroupArePassedOver) {
  Socket receiver = Socket::CreateReceiver(AddressFamily::kIpv4);
  ASSERT_EQ(receiver.Bind(SocketAddress::Ipv4(0, 0)), BindOutcome::kBound);
  const std::uint16_t port = receiver.LocalAddress().port();
  const auto group = SocketAddress::Parse("239.255.240.1", port);
  ASSERT_TRUE(receiver.JoinGroup(group, kLoopback));
  Socket sender = Sender();
  ASSERT_TRUE(sender.SetMulticastLoopback(true) && sender.SetMulticastInterface(kLoopback));
  for (const char* text : {"a", "b"}) {
    ASSERT_TRUE(Send(sender, SocketAddress::Ipv4(kLoopback, port), "not for the group"));
    ASSERT_TRUE(Send(sender, group, text));
  }
  EXPECT_EQ(Await(receiver, 2), (std::vector<std::string>{"a", "b"}));
}

// Datagrams that come in just when a receive finds nothing must not be slept through.
TEST(Datagrams, AreNotSleptThrough) {
  constexpr int kRounds = 500;
  Socket here = Receiver();
  Socket there = Receiver();
  Socket third = Sender();
  Thread echo = Thread::Start("echo", [&] {
    for (int i = 0; i < kRounds; ++i) {
      if (Await(there, 1).size() != 1 || !Send(there, here.LocalAddress(), "back")) return 1u;
    }
    return 0u;
  });
  bool all = true;
  for (int i = 0; i < kRounds && all; ++i) {
    all = Send(here, there.LocalAddress(), "to");
    // Perhaps the answer, perhaps nothing yet.
    const std::size_t early = i % 2 == 0 ? Receive(here).texts.size() : 0;
    all = all && Send(third, here.LocalAddress(), "more") &&
          Await(here, 2 - early).size() == 2 - early;
  }
  EXPECT_TRUE(all);
  EXPECT_TRUE(echo.Join());
}

TEST(ReceiveErrors, ThatPassByThemselvesLoseNothing) {
  Socket receiver = Receiver();
  Socket sender = Sender();
  ASSERT_TRUE(Send(sender, receiver.LocalAddress(), "still there"));
  for (const int error : testing::kPassingReceiveErrors) {
    ASSERT_EQ(WaitForSocket(receiver), WaitStatus::kSignalled);
    ArmFault(Fault::kReceive, 1, 0, error);
    EXPECT_EQ(Receive(receiver), Received{true}) << error;
  }
  for (const int error : testing::kDeadlyReceiveErrors) {
    ArmFault(Fault::kReceive, 1, 0, error);
    EXPECT_EQ(Receive(receiver), Received{false}) << error;
  }
  DisarmFaults();
  EXPECT_EQ(Await(receiver, 1), std::vector<std::string>{"still there"});
}

// A port that nobody has open answers a datagram with an error.
TEST(ReceiveErrors, SayNothingOfAPortWithoutReceiver) {
  Socket socket = Receiver();
  const std::uint16_t closed = Receiver().LocalAddress().port();
  ASSERT_TRUE(Send(socket, SocketAddress::Ipv4(kLoopback, closed), "lost"));
  ASSERT_TRUE(Send(socket, socket.LocalAddress(), "end"));
  EXPECT_EQ(Await(socket, 1), std::vector<std::string>{"end"});
}

}  // namespace
}  // namespace talvorn::platform
