#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "devices/item_list.h"
#include "devices/pausing_clock.h"
#include "devices/testing_items.h"
#include "platform/memory.h"
#include "support/debug_trace.h"
#include "testing/scratch_machine.h"

namespace talvorn {
namespace {

// Bytes of the process that are in memory.
std::size_t ResidentSize() {
  constexpr std::size_t kPage = 4'096;
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * kPage;
}

TEST(ListMemory, GoesBackWhenTheItemsOfAFloodHaveExpired) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers keep what is freed for themselves";
#endif
  DebugTrace().SetEnabled(0);
  const testing::ScratchMachine machine;
  testing::PausingClock clock;
  CItemList list(clock);
  platform::GiveBackFreedMemory();  // what other tests have left
  const std::size_t before = ResidentSize();
  // Threads have heaps of their own, which the sweeping one never touches by itself.
  std::thread([&] {
    auto item = testing::MakeItem(200, 0, 0, 28);
    for (std::uint32_t number = 0; number <= CItemList::kMostOfDevice.items; ++number) {
      ByteWriter{std::span(item).subspan(24)}.U32Big(number);
      list.Add(1, *ParseItem(item));
    }
  }).join();
  EXPECT_EQ(list.count(), CItemList::kMostOfDevice.items);
  const std::size_t full = ResidentSize();

  clock.Advance(10'001);
  list.Sweep();
  EXPECT_LT(ResidentSize(), before + (full - before) / 5);
}

}  // namespace
}  // namespace talvorn
