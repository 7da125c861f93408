// Sockets in waits, and what their receives deliver and pass over.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "platform/event.h"
#include "platform/fault_injection.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "platform/win32/windows_api.h"
#include "testing/socket_library.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kGenerousMs = 30'000;
constexpr std::uint16_t kPort = 42'417;

SocketAddress Loopback(std::uint16_t port) {
  return SocketAddress::Ipv4(ParseIpv4("127.0.0.1"), port);
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
  std::string heard;
  for (int i = 0; i < 10 && heard.empty(); ++i) {
    ASSERT_EQ(WaitForSocket(socket, kGenerousMs), WaitStatus::kSignalled);
    heard = ReceiveOne(socket).text;
  }
  EXPECT_EQ(heard, "end");
}

}  // namespace
}  // namespace talvorn::platform
