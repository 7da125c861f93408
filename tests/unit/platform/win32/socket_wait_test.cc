// Sockets in waits, and what their receives deliver and pass over.
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>
#include <vector>

#include "platform/event.h"
#include "platform/fault_injection.h"
#include "platform/network_interfaces.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "platform/win32/windows_api.h"
#include "testing/socket_library.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kGenerousMs = 30'000;
constexpr std::uint16_t kPort = 42'417;

using Texts = std::vector<std::string>;

SocketAddress Loopback(std::uint16_t port) {
  return SocketAddress::Ipv4(ParseIpv4("127.0.0.1"), port);
}

SocketAddress Group(int n) {
  return SocketAddress::Ipv4(ParseIpv4(("239.255.240." + std::to_string(n)).c_str()), kPort);
}

Socket Datagrams() { return Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram); }

bool Send(Socket& socket, const SocketAddress& destination, std::string_view text) {
  return socket.SendTo(std::as_bytes(std::span(text)), destination) == text.size();
}

WaitStatus WaitForSocket(const Socket& socket, WaitLimit limit) {
  const Waitable* const waited[] = {&socket};
  return WaitForAny(waited, limit);
}

struct Received {
  ReceiveStatus status;
  std::string text;
};

Received ReceiveOne(Socket& socket) {
  std::array<std::byte, 1500> buffer{};
  std::size_t size = 0;
  SocketAddress source;
  const ReceiveStatus status = socket.ReceiveFrom(buffer, size, source);
  return {status, {reinterpret_cast<const char*>(buffer.data()), size}};
}

// One datagram a wait, as receivers take them, up to the datagram "end".
Texts Listen(Socket& socket) {
  Texts texts;
  while (texts.empty() || texts.back() != "end") {
    if (WaitForSocket(socket, kGenerousMs) != WaitStatus::kSignalled) {
      texts.emplace_back("nothing more came");
      break;
    }
    if (Received received = ReceiveOne(socket); received.status == ReceiveStatus::kReceived)
      texts.push_back(std::move(received.text));
  }
  return texts;
}

TEST(SocketWait, BurstIsReceivedToItsEndAndThenWaitsAgain) {
  Socket receiver = Datagrams();
  receiver.EnlargeReceiveBuffer(1 << 20);
  ASSERT_TRUE(receiver.Bind(Loopback(kPort)));
  Socket sender = Datagrams();
  EXPECT_EQ(WaitForSocket(receiver, 0), WaitStatus::kTimeout);
  for (int round = 0; round < 20; ++round) {
    Texts expected;
    for (int i = 0; i < 50; ++i) expected.push_back(std::to_string(round * 100 + i));
    expected.emplace_back("end");
    for (const std::string& text : expected) ASSERT_TRUE(Send(sender, Loopback(kPort), text));
    EXPECT_EQ(Listen(receiver), expected);
    // What the receive finds at the end of a burst is that nothing is left.
    EXPECT_EQ(ReceiveOne(receiver).status, ReceiveStatus::kNothing);
    EXPECT_EQ(WaitForSocket(receiver, 0), WaitStatus::kTimeout);
  }
}

// Datagrams that come in just when a receive finds nothing must not be slept through.
TEST(SocketWait, NoDatagramIsSleptThrough) {
  constexpr int kRounds = 500;
  Socket here = Datagrams();
  Socket there = Datagrams();
  Socket third = Datagrams();
  ASSERT_TRUE(here.Bind(Loopback(kPort)));
  ASSERT_TRUE(there.Bind(Loopback(kPort + 1)));
  const auto await = [](Socket& socket, int datagrams) {
    while (datagrams > 0 && WaitForSocket(socket, kGenerousMs) == WaitStatus::kSignalled) {
      if (ReceiveOne(socket).status == ReceiveStatus::kReceived) --datagrams;
    }
    return datagrams == 0;
  };
  Thread echo = Thread::Start("echo", [&] {
    for (int i = 0; i < kRounds; ++i) {
      if (!await(there, 1) || !Send(there, Loopback(kPort), "back")) return 1u;
    }
    return 0u;
  });
  bool all = true;
  for (int i = 0; i < kRounds && all; ++i) {
    all = Send(here, Loopback(kPort + 1), "to");
    // Perhaps the answer, perhaps nothing yet.
    const bool early = i % 2 == 0 && ReceiveOne(here).status == ReceiveStatus::kReceived;
    all = all && Send(third, Loopback(kPort), "more") && await(here, early ? 1 : 2);
  }
  EXPECT_TRUE(all);
  EXPECT_TRUE(echo.Join());
}

TEST(SocketWait, StreamIsSignalledAsLongAsThereIsSomethingToRead) {
  Socket listener = Socket::Create(AddressFamily::kIpv4, SocketType::kStream);
  ASSERT_TRUE(listener.Bind(Loopback(kPort)));
  ASSERT_TRUE(listener.Listen(4));
  std::array<Socket, 2> clients;
  std::array<Socket, 2> servers;
  for (Socket& client : clients) {
    client = Socket::Create(AddressFamily::kIpv4, SocketType::kStream);
    ASSERT_NE(client.Connect(Loopback(kPort)), ConnectStatus::kFailed);
    ASSERT_EQ(client.WaitWritable(kGenerousMs), WaitStatus::kSignalled);
  }
  for (Socket& server : servers) {
    ASSERT_EQ(WaitForSocket(listener, kGenerousMs), WaitStatus::kSignalled);
    server = listener.Accept();
    ASSERT_TRUE(server.valid());
  }
  EXPECT_FALSE(listener.Accept().valid());
  EXPECT_EQ(WaitForSocket(listener, 0), WaitStatus::kTimeout);

  ASSERT_EQ(clients[0].Send(std::as_bytes(std::span("abc", 3))), 3u);
  std::array<std::byte, 1> one{};
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(WaitForSocket(servers[0], kGenerousMs), WaitStatus::kSignalled);
    EXPECT_EQ(servers[0].Receive(one), 1u);
  }
  EXPECT_FALSE(servers[0].Receive(one));
  EXPECT_EQ(WaitForSocket(servers[0], 0), WaitStatus::kTimeout);
  // The other connection has its own say.
  EXPECT_EQ(WaitForSocket(servers[1], 0), WaitStatus::kTimeout);
  clients[0].Close();
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(WaitForSocket(servers[0], kGenerousMs), WaitStatus::kSignalled);
    EXPECT_EQ(servers[0].Receive(one), 0u);
  }
}

TEST(SocketErrors, ReceiveSurvivesWhatPassesByItself) {
  struct Case {
    int error;
    ReceiveStatus expected;
  };
  const Case cases[] = {
      {WSAEINTR, ReceiveStatus::kNothing},        {WSAEWOULDBLOCK, ReceiveStatus::kNothing},
      {WSAENETDOWN, ReceiveStatus::kNothing},     {WSAECONNRESET, ReceiveStatus::kNothing},
      {WSAENETRESET, ReceiveStatus::kNothing},    {WSAENOBUFS, ReceiveStatus::kNothing},
      {WSAEHOSTUNREACH, ReceiveStatus::kNothing}, {WSAENOTSOCK, ReceiveStatus::kFailed},
      {WSAEINVAL, ReceiveStatus::kFailed},        {WSANOTINITIALISED, ReceiveStatus::kFailed},
  };
  Socket receiver = Datagrams();
  ASSERT_TRUE(receiver.Bind(Loopback(kPort)));
  Socket sender = Datagrams();
  ASSERT_TRUE(Send(sender, Loopback(kPort), "still there"));
  for (const Case& c : cases) {
    ASSERT_EQ(WaitForSocket(receiver, kGenerousMs), WaitStatus::kSignalled);
    ArmFault(Fault::kReceive, 1, 0, c.error);
    EXPECT_EQ(ReceiveOne(receiver).status, c.expected) << c.error;
  }
  DisarmFaults();
  EXPECT_EQ(ReceiveOne(receiver).text, "still there");
}

// A port that nobody has open answers a datagram with an error.
TEST(SocketErrors, SenderHearsNothingOfAPortWithoutReceiver) {
  Socket socket = Datagrams();
  ASSERT_TRUE(socket.Bind(Loopback(kPort)));
  ASSERT_TRUE(Send(socket, Loopback(kPort + 9), "lost"));
  ASSERT_TRUE(Send(socket, Loopback(kPort), "end"));
  EXPECT_EQ(Listen(socket), Texts{"end"});
}

class WindowsMulticast : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto rows = QueryIpv4AddressTable();
    ASSERT_TRUE(rows.has_value());
    std::set<std::uint32_t> seen;
    for (const Ipv4AddressRow& row : *rows) {
      if (row.address != ParseIpv4("127.0.0.1") && seen.insert(row.interfaceIndex).second)
        interfaces_.push_back(row.address);
    }
    if (interfaces_.empty()) GTEST_SKIP() << "needs a network interface";
  }

  static Socket Receiver(int group, std::uint32_t interfaceAddress) {
    Socket socket = Datagrams();
    EXPECT_TRUE(socket.SetReuseAddress());
    EXPECT_TRUE(socket.Bind(SocketAddress::Ipv4(0, kPort)));
    EXPECT_TRUE(socket.JoinGroup(Group(group), interfaceAddress));
    return socket;
  }

  static Socket Sender(std::uint32_t interfaceAddress) {
    Socket socket = Datagrams();
    EXPECT_TRUE(socket.SetMulticastLoopback(true));
    EXPECT_TRUE(socket.SetMulticastHops(1));
    EXPECT_TRUE(socket.SetMulticastInterface(interfaceAddress));
    return socket;
  }

  std::vector<std::uint32_t> interfaces_;  // an address of each
};

TEST_F(WindowsMulticast, ReceiverHearsItsOwnGroupOnly) {
  Socket requests = Receiver(1, interfaces_[0]);
  Socket answers = Receiver(2, interfaces_[0]);
  Socket sender = Sender(interfaces_[0]);
  EXPECT_TRUE(Send(sender, Group(1), "request"));
  EXPECT_TRUE(Send(sender, Group(2), "answer"));
  EXPECT_TRUE(Send(sender, SocketAddress::Ipv4(interfaces_[0], kPort), "to the host"));
  // Larger than a receiver's buffer.
  const std::string large(3000, 'x');
  EXPECT_TRUE(Send(sender, Group(1), large));
  EXPECT_TRUE(Send(sender, Group(2), large));
  EXPECT_TRUE(Send(sender, Group(1), "end"));
  EXPECT_TRUE(Send(sender, Group(2), "end"));
  EXPECT_EQ(Listen(requests), (Texts{"request", large.substr(0, 1500), "end"}));
  EXPECT_EQ(Listen(answers), (Texts{"answer", large.substr(0, 1500), "end"}));
  EXPECT_TRUE(requests.RejoinGroup());
}

TEST_F(WindowsMulticast, InterfacesAreSeparate) {
  if (interfaces_.size() < 2) GTEST_SKIP() << "needs two network interfaces";
  Socket first = Receiver(1, interfaces_[0]);
  Socket second = Receiver(1, interfaces_[1]);
  Socket firstSender = Sender(interfaces_[0]);
  Socket secondSender = Sender(interfaces_[1]);
  EXPECT_TRUE(Send(firstSender, Group(1), "on the first"));
  EXPECT_TRUE(Send(secondSender, Group(1), "on the second"));
  EXPECT_TRUE(Send(firstSender, Group(1), "end"));
  EXPECT_TRUE(Send(secondSender, Group(1), "end"));
  EXPECT_EQ(Listen(first), (Texts{"on the first", "end"}));
  EXPECT_EQ(Listen(second), (Texts{"on the second", "end"}));
}

}  // namespace
}  // namespace talvorn::platform
