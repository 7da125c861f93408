#include "devices/item_list.h"

#include <gtest/gtest.h>

#include <vector>

#include "devices/testing_items.h"
#include "platform/fault_injection.h"
#include "support/debug_trace.h"
#include "testing/fake_clock.h"
#include "testing/scratch_machine.h"

namespace talvorn {
namespace {

using testing::MakeItem;

class ItemListTest : public ::testing::Test {
 protected:
  ItemListTest() { DebugTrace().SetEnabled(0); }

  void Add(std::uint32_t serial, const std::vector<std::byte>& bytes) {
    const auto item = ParseItem(bytes);
    ASSERT_TRUE(item);
    const std::lock_guard guard(list_.lock);
    list_.Add(serial, *item);
  }
  // Serial and last byte of every entry of the snapshot.
  std::vector<std::pair<std::uint32_t, int>> Entries() {
    std::vector<std::pair<std::uint32_t, int>> entries;
    for (ByteReader reader{list_.GetItems()}; reader.remaining() > 0;) {
      const std::uint32_t serial = reader.U32Little();
      const auto header = reader.Take(24);
      const auto rest = reader.Take(U32BigAt(header, 20) - 4);
      entries.emplace_back(serial, std::to_integer<int>(rest.back()));
    }
    return entries;
  }
  using Expected = std::vector<std::pair<std::uint32_t, int>>;

  testing::ScratchMachine machine_;
  testing::FakeClock clock_;
  CItemList list_{clock_};
};

TEST_F(ItemListTest, AnItemThatExpiresNowSurvivesTheSweep) {
  Add(1, MakeItem(80, 1));
  clock_.Advance(5'000);
  Add(1, MakeItem(80, 2));
  Add(3, MakeItem(80, 3));
  clock_.Advance(5'000);
  list_.Sweep();
  EXPECT_EQ(list_.count(), 3u);
  Add(3, MakeItem(80, 3));
  clock_.Advance(1);
  list_.Sweep();
  EXPECT_EQ(Entries(), (Expected{{3, 3}, {1, 2}}));
  clock_.Advance(5'000);
  list_.Sweep();
  EXPECT_EQ(Entries(), (Expected{{3, 3}}));
  Add(1, MakeItem(80, 1));
  EXPECT_EQ(list_.count(), 2u) << "a removed item is new again";
}

TEST_F(ItemListTest, TellsItemsApartWithoutADigestProvider) {
  platform::ArmFault(platform::Fault::kDigest, 1'000);
  Add(1, MakeItem(80, 1));
  Add(1, MakeItem(80, 2));
  Add(1, MakeItem(80, 1));
  platform::DisarmFaults();
  EXPECT_EQ(list_.count(), 2u);
}

}  // namespace
}  // namespace talvorn
