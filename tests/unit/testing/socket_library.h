// Keeps the system's socket library started while the tests of this executable run.
// Whoever includes this may use sockets.
#pragma once

#include <gtest/gtest.h>

#include "platform/socket.h"

namespace talvorn::testing {

class SocketLibrary final : public ::testing::Environment {
 public:
  void SetUp() override { ASSERT_TRUE(platform::StartSocketLibrary()); }
  void TearDown() override { platform::StopSocketLibrary(); }
};

inline ::testing::Environment* const kSocketLibrary =
    ::testing::AddGlobalTestEnvironment(new SocketLibrary);

}  // namespace talvorn::testing
