#include "platform/win32/handle.h"

#include <gtest/gtest.h>

#include <vector>

namespace talvorn::platform {
namespace {

std::vector<int> closed;

void Close(int handle) { closed.push_back(handle); }
using Counted = Handle<int, Close, -7>;

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

}  // namespace
}  // namespace talvorn::platform
