#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/fault_injection.h"
#include "platform/socket.h"

namespace talvorn::platform {
namespace {

TEST(SocketErrors, ReceiveSurvivesWhatPassesByItself) {
  struct Case {
    int error;
    ReceiveStatus expected;
  };
  const Case cases[] = {
      {EINTR, ReceiveStatus::kNothing},        {EAGAIN, ReceiveStatus::kNothing},
      {ENETDOWN, ReceiveStatus::kNothing},     {ECONNRESET, ReceiveStatus::kNothing},
      {ENETRESET, ReceiveStatus::kNothing},    {ECONNREFUSED, ReceiveStatus::kNothing},
      {EHOSTUNREACH, ReceiveStatus::kNothing}, {ENOBUFS, ReceiveStatus::kNothing},
      {ENOMEM, ReceiveStatus::kNothing},       {EBADF, ReceiveStatus::kFailed},
      {ENOTSOCK, ReceiveStatus::kFailed},      {EINVAL, ReceiveStatus::kFailed},
  };
  Socket socket = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
  std::array<std::byte, 1500> buffer{};
  std::size_t size = 0;
  SocketAddress source;
  for (const Case& c : cases) {
    ArmFault(Fault::kReceive, 1, 0, c.error);
    EXPECT_EQ(socket.ReceiveFrom(buffer, size, source), c.expected) << std::strerror(c.error);
  }
  DisarmFaults();
  EXPECT_EQ(socket.ReceiveFrom(buffer, size, source), ReceiveStatus::kNothing);
}

}  // namespace
}  // namespace talvorn::platform
