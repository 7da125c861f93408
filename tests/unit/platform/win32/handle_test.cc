#include "platform/win32/handle.h"

#include <gtest/gtest.h>

#include <vector>

namespace talvorn::platform {
namespace {

std::vector<int> closed;

struct CountingPolicy {
  using Native = int;
  static Native None() { return -7; }
  static void Close(Native handle) { closed.push_back(handle); }
};
using Counted = Handle<CountingPolicy>;

TEST(Handle, ClosesWhatItOwnsOnceAndNeverNone) {
  closed.clear();
  {
    const Counted none;
    Counted first(1);
    Counted moved(std::move(first));
    EXPECT_FALSE(none.valid());
    EXPECT_FALSE(first.valid());
    EXPECT_EQ(moved.get(), 1);
    EXPECT_TRUE(closed.empty());

    Counted& itself = moved;
    moved = std::move(itself);
    EXPECT_EQ(moved.get(), 1);
    Counted second(2);
    moved = std::move(second);
    EXPECT_EQ(closed, std::vector{1});

    *moved.Receive() = 3;
    EXPECT_EQ(closed, (std::vector{1, 2}));
    Counted released(4);
    EXPECT_EQ(released.Release(), 4);
    moved.Close();
    moved.Close();
  }
  EXPECT_EQ(closed, (std::vector{1, 2, 3}));
}

// Null and INVALID_HANDLE_VALUE are not taken for each other.
TEST(Handle, KnowsTheNoneOfItsKind) {
  EXPECT_FALSE(KernelHandle().valid());
  EXPECT_EQ(KernelHandle().get(), nullptr);
  EXPECT_EQ(FileHandle().get(), INVALID_HANDLE_VALUE);
  EXPECT_EQ(SocketHandle().get(), INVALID_SOCKET);
  EXPECT_FALSE(SocketEventHandle().valid());
  EXPECT_FALSE((std::is_convertible_v<KernelHandle, FileHandle>));

  const HANDLE event = CreateEventW(nullptr, TRUE, TRUE, nullptr);
  { const KernelHandle owner(event); }
  DWORD flags = 0;
  EXPECT_FALSE(GetHandleInformation(event, &flags));
}

}  // namespace
}  // namespace talvorn::platform
