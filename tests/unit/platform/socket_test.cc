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

}  // namespace
}  // namespace talvorn::platform
