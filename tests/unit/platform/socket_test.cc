#include "platform/socket.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/fault_injection.h"
#include "testing/socket_library.h"

namespace talvorn::platform {
namespace {

TEST(Socket, ThatCouldNotBeMadeFailsWithoutHarm) {
  ArmFault(Fault::kSocketCreate, 1);
  Socket none = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
  DisarmFaults();
  const auto group = SocketAddress::Ipv4(ParseIpv4("239.255.240.1"), 4817);
  std::vector<std::byte> buffer(10);
  EXPECT_FALSE(none.valid() || none.Bind(SocketAddress::Ipv4(0, 0)));
  EXPECT_FALSE(none.JoinGroup(group, 0) || none.RejoinGroup());
  EXPECT_FALSE(none.SendTo(buffer, group));
  EXPECT_EQ(none.WaitReadable({}), WaitStatus::kFailed);
  std::size_t size = 0;
  SocketAddress source;
  EXPECT_EQ(none.ReceiveFrom(buffer, size, source), ReceiveStatus::kFailed);
}

TEST(Socket, AListenerHasItsPortForItself) {
  const auto listen = [](std::uint16_t port) {
    Socket socket = Socket::Create(AddressFamily::kIpv4, SocketType::kStream);
    const bool listens =
        socket.ClaimAddress() && socket.Bind(SocketAddress::Ipv4(0, port)) && socket.Listen(1);
    return listens ? std::move(socket) : Socket();
  };
  const Socket first = listen(0);
  ASSERT_TRUE(first.valid());
  EXPECT_FALSE(listen(first.LocalAddress().port()).valid());
}

}  // namespace
}  // namespace talvorn::platform
