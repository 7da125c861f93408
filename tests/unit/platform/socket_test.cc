#include "platform/socket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/fault_injection.h"
#include "testing/socket_library.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kGenerousMs = 30'000;

std::vector<std::byte> Bytes(std::size_t size, int first) {
  std::vector<std::byte> bytes(size);
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = static_cast<std::byte>(first + static_cast<int>(i % 251));
  return bytes;
}

SocketAddress Loopback(std::uint16_t port) {
  return SocketAddress::Ipv4(ParseIpv4("127.0.0.1"), port);
}

// Binds to a free port, from this one on, that stays the same for the test.
std::uint16_t BindSomewhere(Socket& socket) {
  for (std::uint16_t port = 42'117; port < 42'317; ++port) {
    if (socket.Bind(Loopback(port))) return port;
  }
  return 0;
}

struct DatagramPair {
  Socket receiver = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
  Socket sender = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
  SocketAddress destination = Loopback(BindSomewhere(receiver));

  bool Send(const std::vector<std::byte>& data) {
    return sender.SendTo(data, destination) == data.size() &&
           receiver.WaitReadable(kGenerousMs) == WaitStatus::kSignalled;
  }
};

TEST(ResolveAddress, TellsGroupsFromNames) {
  const ResolveHints hints{.numericHost = true, .type = SocketType::kDatagram};
  const auto v4 = ResolveAddress("239.255.240.1", "4817", hints);
  ASSERT_TRUE(v4.has_value());
  EXPECT_EQ(v4->family, AddressFamily::kIpv4);
  EXPECT_EQ(Ipv4Text(v4->address.ipv4()), "239.255.240.1");
  EXPECT_EQ(v4->address.port(), 4817);

  const auto v6 = ResolveAddress("ff04:4817::1", "4817", hints);
  ASSERT_TRUE(v6.has_value());
  EXPECT_EQ(v6->family, AddressFamily::kIpv6);
  EXPECT_EQ(v6->address.ipv4(), 0u);
  EXPECT_EQ(NumericHost(v6->address, 13), "ff04:4817::1");
  EXPECT_EQ(NumericHost(v6->address, 12), "") << "no room for the terminator";

  for (const char* name : {"localhost", "239.255.240.256"})
    EXPECT_FALSE(ResolveAddress(name, "4817", hints)) << name;
  EXPECT_FALSE(ResolveStreamHost(u"::1", "4817"));
  EXPECT_EQ(NumericHost(SocketAddress(), 50), "");
}

TEST(Socket, ThatCouldNotBeMadeFailsWithoutHarm) {
  ArmFault(Fault::kSocketCreate, 1);
  Socket none = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
  DisarmFaults();
  EXPECT_FALSE(none.valid() || none.Bind(Loopback(0)) || none.RejoinGroup());
  EXPECT_FALSE(none.JoinGroup(SocketAddress::Ipv4(ParseIpv4("239.255.240.1"), 4817), 0));
  EXPECT_FALSE(none.SendTo(Bytes(1, 0), Loopback(4817)));
  EXPECT_EQ(none.WaitReadable({}), WaitStatus::kFailed);
  std::vector<std::byte> buffer(10);
  std::size_t size = 0;
  SocketAddress source;
  EXPECT_EQ(none.ReceiveFrom(buffer, size, source), ReceiveStatus::kFailed);
}

TEST(Socket, OversizedDatagramDeliversItsBeginningAndNoMore) {
  DatagramPair pair;
  std::vector<std::byte> buffer(1500);
  std::size_t size = 0;
  SocketAddress source;
  EXPECT_EQ(pair.receiver.ReceiveFrom(buffer, size, source), ReceiveStatus::kNothing);
  // An empty one is a datagram too.
  for (const std::size_t length : {std::size_t{3000}, std::size_t{3}, std::size_t{0}}) {
    ASSERT_TRUE(pair.Send(Bytes(length, 1)));
    ASSERT_EQ(pair.receiver.ReceiveFrom(buffer, size, source), ReceiveStatus::kReceived);
    EXPECT_EQ(size, std::min<std::size_t>(length, 1500));
    EXPECT_EQ(buffer, Bytes(1500, 1));
    EXPECT_EQ(NumericHost(source, 50), "127.0.0.1");
  }
}

TEST(Socket, MovedSocketHasOneOwner) {
  DatagramPair pair;
  Socket moved = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
  {
    Socket between(std::move(pair.receiver));
    moved = std::move(between);
  }
  Socket& itself = moved;
  moved = std::move(itself);
  pair.receiver = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
  ASSERT_TRUE(pair.sender.SendTo(Bytes(43, 0), pair.destination));
  EXPECT_EQ(moved.WaitReadable(kGenerousMs), WaitStatus::kSignalled);
  moved.Close();
  moved.Close();
  EXPECT_TRUE(pair.receiver.Bind(Loopback(0)));
}

TEST(Socket, StreamConnectsExchangesAndEnds) {
  Socket listener = Socket::Create(AddressFamily::kIpv4, SocketType::kStream);
  ASSERT_TRUE(listener.SetReuseAddress());
  const SocketAddress address = Loopback(BindSomewhere(listener));

  ASSERT_TRUE(listener.Listen(4));
  EXPECT_FALSE(listener.Accept().valid());
  Socket client = Socket::Create(AddressFamily::kIpv4, SocketType::kStream);
  ASSERT_NE(client.Connect(address), ConnectStatus::kFailed);
  ASSERT_EQ(client.WaitWritable(kGenerousMs), WaitStatus::kSignalled);
  EXPECT_TRUE(client.ConnectSucceeded());
  ASSERT_EQ(listener.WaitReadable(kGenerousMs), WaitStatus::kSignalled);
  Socket server = listener.Accept();
  ASSERT_TRUE(server.valid());

  std::vector<std::byte> buffer(10);
  EXPECT_FALSE(server.Receive(buffer));
  EXPECT_EQ(client.Send(Bytes(4, 9)), 4u);
  ASSERT_EQ(server.WaitReadable(kGenerousMs), WaitStatus::kSignalled);
  EXPECT_EQ(server.Receive(buffer), 4u);
  EXPECT_EQ(buffer[3], std::byte{12});

  // A sender that nobody reads is not held up.
  const std::vector<std::byte> much = Bytes(1 << 20, 0);
  int sends = 0;
  while (client.Send(much) && sends < 1000) ++sends;
  EXPECT_LT(sends, 1000);
  EXPECT_EQ(client.WaitWritable(0), WaitStatus::kTimeout);

  client.ShutdownBoth();
  buffer.resize(much.size());
  std::optional<std::size_t> received;
  do {
    ASSERT_EQ(server.WaitReadable(kGenerousMs), WaitStatus::kSignalled);
    received = server.Receive(buffer);
    ASSERT_TRUE(received.has_value());
  } while (*received > 0);
}

}  // namespace
}  // namespace talvorn::platform
