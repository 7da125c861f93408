#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/fault_injection.h"
#include "platform/socket.h"

namespace talvorn::platform {
namespace {

TEST(SocketErrors, ReceiveSurvivesWhatPassesByItself) {
  Socket socket = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
  std::array<std::byte, 1500> buffer{};
  const auto receive = [&](int error) {
    std::size_t size = 0;
    SocketAddress source;
    ArmFault(Fault::kReceive, 1, 0, error);
    return socket.ReceiveFrom(buffer, size, source);
  };
  for (const int error : {EINTR, EAGAIN, ENETDOWN, ECONNRESET, ENETRESET, ECONNREFUSED,
                          EHOSTUNREACH, ENOBUFS, ENOMEM}) {
    EXPECT_EQ(receive(error), ReceiveStatus::kNothing) << std::strerror(error);
  }
  for (const int error : {EBADF, ENOTSOCK, EINVAL}) {
    EXPECT_EQ(receive(error), ReceiveStatus::kFailed) << std::strerror(error);
  }
  DisarmFaults();
}

}  // namespace
}  // namespace talvorn::platform
