#include "platform/bounded_resolution.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "platform/thread.h"
#include "testing/wait_until.h"

namespace talvorn::platform {
namespace {

// A name server that says nothing until it is let go.
struct SilentServer {
  std::atomic<bool> released = false;
  std::atomic<std::uint32_t> asked = 0;
};

TEST(ResolveWithin, LeavesASilentServerBehindAndOnlySoManyTimes) {
  const auto answers = [] { return std::optional<std::uint32_t>(4'711); };
  EXPECT_EQ(ResolveWithin(60'000, answers), 4'711);

  const auto server = std::make_shared<SilentServer>();
  const auto silent = [server]() -> std::optional<std::uint32_t> {
    ++server->asked;
    while (!server->released) SleepMs(5);
    return std::nullopt;
  };
  for (std::uint32_t i = 0; i < kMostResolutions; ++i) EXPECT_FALSE(ResolveWithin(1, silent));
  EXPECT_FALSE(ResolveWithin(60'000, silent));  // at once
  EXPECT_FALSE(ResolveWithin(60'000, answers));
  EXPECT_TRUE(testing::WaitUntil([&] { return server->asked == kMostResolutions; }));

  server->released = true;
  EXPECT_TRUE(testing::WaitUntil([&] { return ResolveWithin(60'000, answers).has_value(); }));
  EXPECT_EQ(server->asked, kMostResolutions);
}

}  // namespace
}  // namespace talvorn::platform
