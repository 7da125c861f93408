#include "devices/item_list.h"

#include <gtest/gtest.h>

#include <vector>

#include "devices/pausing_clock.h"
#include "devices/testing_items.h"
#include "platform/fault_injection.h"
#include "support/debug_trace.h"
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
  // Adds items of one device, `size` bytes each and told apart by a number, until the
  // list takes no more of them. Number of items then.
  std::size_t Fill(std::uint32_t serial, std::uint32_t size,
                   std::uint32_t most = CItemList::kMost.items) {
    constexpr std::uint32_t kIdentity = 28;
    auto bytes = MakeItem(size - 20, 0, 0, kIdentity);
    std::uint32_t before = 0;
    std::uint32_t number = 0;
    do {
      before = list_.count();
      ByteWriter{std::span(bytes).subspan(kIdentity - 4)}.U32Big(++number);
      Add(serial, bytes);
    } while (list_.count() > before && number < most);
    return list_.count();
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
  testing::PausingClock clock_;
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

TEST_F(ItemListTest, SweepsInPiecesAndLetsOthersAtTheListBetweenThem) {
  Fill(1, 28, kSweepPiece);
  clock_.Advance(5'000);
  Add(3, MakeItem(80, 3));
  clock_.Advance(5'001);
  int pauses = 0;
  clock_.whilePaused = [&] {
    if (!list_.lock.try_lock()) return;
    Add(4, MakeItem(80, static_cast<std::uint8_t>(++pauses)));
    EXPECT_EQ(list_.count(), 3u) << "one is left of the expired ones";
    EXPECT_EQ(Entries().size(), list_.count());
    list_.lock.unlock();
  };
  list_.Sweep();
  EXPECT_EQ(pauses, 1);
  EXPECT_EQ(Entries(), (Expected{{4, 1}, {3, 3}}));
}

TEST_F(ItemListTest, WhatADeviceAndAllMayHoldIsBounded) {
  constexpr std::uint32_t kSize = 1'000'000;
  constexpr std::size_t kAll = CItemList::kMost.bytes / (kSize + 4);
  const std::size_t ofDevice = Fill(1, kSize);
  EXPECT_EQ(ofDevice, CItemList::kMostOfDevice.bytes / (kSize + 4));
  clock_.Advance(5'000);
  for (std::uint32_t serial = 2; serial <= 9; ++serial) Fill(serial, kSize);
  EXPECT_EQ(list_.count(), kAll) << "others have room, then all";
  EXPECT_EQ(list_.GetItems().size(), kAll * (kSize + 4));

  clock_.Advance(5'000);
  EXPECT_EQ(Fill(1, kSize, 1), kAll) << "what is known is confirmed all the same";
  clock_.Advance(1);
  list_.Sweep();
  EXPECT_EQ(list_.count(), kAll - ofDevice + 1);
  Add(1, MakeItem(80, 1));
  EXPECT_EQ(list_.count(), kAll - ofDevice + 2) << "there is room again";
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
