#include "platform/socket.h"

#include <gtest/gtest.h>

#include <string>
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

TEST(SocketAddress, CarriesFamilyAddressAndPort) {
  const SocketAddress v4 = SocketAddress::Ipv4(ParseIpv4("192.168.1.10"), 4817);
  EXPECT_EQ(v4.family(), AddressFamily::kIpv4);
  EXPECT_EQ(v4.size, 16u);
  EXPECT_EQ(Ipv4Text(v4.ipv4()), "192.168.1.10");
  EXPECT_EQ(v4.port(), 4817);

  const SocketAddress v6 =
      SocketAddress::Ipv6({0xFD, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}, 0, 4817);
  EXPECT_EQ(v6.family(), AddressFamily::kIpv6);
  EXPECT_EQ(v6.size, 28u);
  EXPECT_EQ(v6.ipv4(), 0u);
  EXPECT_EQ(v6.port(), 4817);
  EXPECT_EQ(NumericHost(v6, 50), "fd00:1::2");
  EXPECT_EQ(NumericHost(v6, 10), "fd00:1::2");
  EXPECT_EQ(NumericHost(v6, 9), "");

  EXPECT_EQ(SocketAddress().family(), AddressFamily::kUnspecified);
  EXPECT_EQ(SocketAddress().port(), 0);
  EXPECT_EQ(NumericHost(SocketAddress(), 50), "");
}

TEST(SocketAddress, ParsesWhatTheCLibraryParses) {
  EXPECT_EQ(ParseIpv4("127.0.0.1"), 0x0100007Fu);
  EXPECT_EQ(ParseIpv4("127.1"), 0x0100007Fu);
  for (const char* text : {"", "x", "256.1.1.1", "1.2.3.4.5", "::1"}) {
    EXPECT_EQ(ParseIpv4(text), 0xFFFFFFFFu) << text;
  }
}

TEST(ResolveAddress, TellsGroupsFromNames) {
  const ResolveHints hints{.numericHost = true, .type = SocketType::kDatagram};
  const auto v4 = ResolveAddress("239.255.240.1", "4817", hints);
  ASSERT_TRUE(v4.has_value());
  EXPECT_EQ(v4->family, AddressFamily::kIpv4);
  EXPECT_EQ(v4->type, SocketType::kDatagram);
  EXPECT_EQ(NumericHost(v4->address, 50), "239.255.240.1");
  EXPECT_EQ(v4->address.port(), 4817);

  const auto v6 = ResolveAddress("ff04:4817::1", "4817", hints);
  ASSERT_TRUE(v6.has_value());
  EXPECT_EQ(v6->family, AddressFamily::kIpv6);
  EXPECT_EQ(NumericHost(v6->address, 50), "ff04:4817::1");

  EXPECT_FALSE(ResolveAddress("localhost", "4817", hints));
  EXPECT_FALSE(ResolveAddress("239.255.240.256", "4817", hints));

  const auto any = ResolveAddress(
      nullptr, "4817",
      {.passive = true, .family = AddressFamily::kIpv6, .type = SocketType::kDatagram});
  ASSERT_TRUE(any.has_value());
  EXPECT_EQ(NumericHost(any->address, 50), "::");

  const auto host = ResolveStreamHost(u"127.0.0.1", "4817");
  ASSERT_TRUE(host.has_value());
  EXPECT_EQ(host->ipv4(), ParseIpv4("127.0.0.1"));
  EXPECT_FALSE(ResolveStreamHost(u"::1", "4817"));
}

TEST(Socket, ThatCouldNotBeMadeFailsWithoutHarm) {
  ArmFault(Fault::kSocketCreate, 1);
  Socket none = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
  DisarmFaults();
  EXPECT_FALSE(none.valid());
  EXPECT_FALSE(none.Bind(Loopback(0)));
  EXPECT_FALSE(none.JoinGroup(SocketAddress::Ipv4(ParseIpv4("239.255.240.1"), 4817), 0));
  EXPECT_FALSE(none.RejoinGroup());
  EXPECT_FALSE(none.SendTo(Bytes(1, 0), Loopback(4817)));
  EXPECT_EQ(none.WaitReadable({}), WaitStatus::kFailed);
  std::vector<std::byte> buffer(10);
  std::size_t size = 0;
  SocketAddress source;
  EXPECT_EQ(none.ReceiveFrom(buffer, size, source), ReceiveStatus::kFailed);
  EXPECT_FALSE(Socket::Create(AddressFamily::kUnspecified, SocketType::kDatagram).valid());
}

TEST(Socket, DatagramArrivesWholeWithItsSource) {
  DatagramPair pair;
  std::vector<std::byte> buffer(1500);
  std::size_t size = 99;
  SocketAddress source;
  EXPECT_EQ(pair.receiver.ReceiveFrom(buffer, size, source), ReceiveStatus::kNothing);
  for (const std::size_t length : {std::size_t{0}, std::size_t{43}, std::size_t{1500}}) {
    ASSERT_TRUE(pair.Send(Bytes(length, 7)));
    ASSERT_EQ(pair.receiver.ReceiveFrom(buffer, size, source), ReceiveStatus::kReceived);
    EXPECT_EQ(size, length);
    EXPECT_EQ(std::vector(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(size)),
              Bytes(length, 7));
    EXPECT_EQ(NumericHost(source, 50), "127.0.0.1");
    EXPECT_NE(source.port(), 0);
  }
}

TEST(Socket, OversizedDatagramDeliversItsBeginningAndNoMore) {
  DatagramPair pair;
  ASSERT_TRUE(pair.Send(Bytes(3000, 1)));
  ASSERT_TRUE(pair.Send(Bytes(3, 200)));
  std::vector<std::byte> buffer(1500);
  std::size_t size = 0;
  SocketAddress source;
  ASSERT_EQ(pair.receiver.ReceiveFrom(buffer, size, source), ReceiveStatus::kReceived);
  EXPECT_EQ(size, 1500u);
  EXPECT_EQ(buffer, Bytes(1500, 1));
  ASSERT_EQ(pair.receiver.WaitReadable(kGenerousMs), WaitStatus::kSignalled);
  ASSERT_EQ(pair.receiver.ReceiveFrom(buffer, size, source), ReceiveStatus::kReceived);
  EXPECT_EQ(size, 3u);
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

  // Nobody listens yet. Not every system shows a refusal before the time limit.
  Socket early = Socket::Create(AddressFamily::kIpv4, SocketType::kStream);
  if (early.Connect(address) == ConnectStatus::kPending) {
    EXPECT_FALSE(early.WaitWritable(1000) == WaitStatus::kSignalled && early.ConnectSucceeded());
  }

  ASSERT_TRUE(listener.Listen(4));
  EXPECT_FALSE(listener.Accept().valid());
  Socket client = Socket::Create(AddressFamily::kIpv4, SocketType::kStream);
  ASSERT_NE(client.Connect(address), ConnectStatus::kFailed);
  ASSERT_EQ(client.WaitWritable(kGenerousMs), WaitStatus::kSignalled);
  EXPECT_TRUE(client.ConnectSucceeded());
  ASSERT_EQ(listener.WaitReadable(kGenerousMs), WaitStatus::kSignalled);
  Socket server = listener.Accept();
  ASSERT_TRUE(server.valid());
  EXPECT_EQ(server.LocalAddress().ipv4(), address.ipv4());
  EXPECT_EQ(server.LocalAddress().port(), address.port());
  EXPECT_EQ(Socket().LocalAddress().size, 0u);

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
