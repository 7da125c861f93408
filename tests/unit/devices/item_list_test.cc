#include "devices/item_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "devices/change_event.h"
#include "devices/testing_items.h"
#include "platform/fault_injection.h"
#include "platform/named_object.h"
#include "support/debug_trace.h"
#include "testing/fake_clock.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::NamedEvent;
using testing::MakeItem;

// A client that waits on a change event, again after each time it is woken.
class Watcher {
 public:
  explicit Watcher(std::uint32_t serial)
      : event_(NamedEvent::Create(ChangeEventName(serial), NamedEvent::Mode::kAutoReset)),
        thread_([this] { Run(); }) {
    EXPECT_TRUE(event_.valid());
  }
  ~Watcher() {
    end_.Set();
    thread_.join();
  }
  // A pulse wakes only who waits at that moment, so the change is made again and
  // again until it is seen.
  template <class Change>
  [[nodiscard]] bool IsWokenBy(Change change) const {
    const int before = woken_;
    return testing::WaitUntil([&] {
      change();
      return woken_ > before;
    });
  }
  [[nodiscard]] int woken() const { return woken_; }

 private:
  void Run() {
    NamedEvent* const events[] = {&event_};
    while (NamedEvent::WaitAny(events, &end_, std::nullopt).status ==
           NamedEvent::WaitResult::Status::kEvent) {
      ++woken_;
    }
  }

  NamedEvent event_;
  platform::Event end_ = platform::Event::Create(platform::Event::Mode::kManualReset);
  std::atomic<int> woken_{0};
  std::thread thread_;
};

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

TEST_F(ItemListTest, KeepsOneItemPerDeviceAndContentNewestFirst) {
  Add(1, MakeItem(80, 7));
  Add(1, MakeItem(80, 7));
  Add(2, MakeItem(80, 7));
  Add(1, MakeItem(40, 8));
  EXPECT_EQ(list_.count(), 3u);
  EXPECT_EQ(Entries(), (Expected{{1, 8}, {2, 7}, {1, 7}}));
}

TEST_F(ItemListTest, BytesBeyondTheIdentityDoNotCount) {
  auto item = MakeItem(80, 7, 0, 24);
  Add(1, item);
  item.back() = std::byte{9};
  Add(1, item);
  EXPECT_EQ(Entries(), (Expected{{1, 7}})) << "the stored copy keeps the old bytes";
  item[3] = std::byte{25};
  Add(1, item);
  EXPECT_EQ(list_.count(), 2u);
}

TEST_F(ItemListTest, TheSnapshotCarriesItemsAsReceived) {
  const auto item = MakeItem(5, 7);
  Add(0x04030201, item);
  const auto snapshot = list_.GetItems();
  ASSERT_EQ(snapshot.size(), 4 + item.size());
  EXPECT_EQ(ByteReader(snapshot).U32Little(), 0x04030201u);
  EXPECT_TRUE(std::ranges::equal(snapshot.subspan(4), item));
}

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

TEST_F(ItemListTest, NewAndExpiredItemsWakeTheClientsThatWait) {
  Watcher device(1234);
  Watcher list(kWholeList);
  Watcher other(77);
  std::uint32_t bodyLength = 4;
  const auto addNew = [&] { Add(1234, MakeItem(++bodyLength, 1)); };
  EXPECT_TRUE(device.IsWokenBy(addNew));
  EXPECT_TRUE(list.IsWokenBy(addNew));

  // Adding is made unable to signal here, so that only the sweep can.
  const auto expire = [&] {
    platform::ArmFault(platform::Fault::kNamedObjectOpen, 1'000'000);
    addNew();
    platform::DisarmFaults();
    clock_.Advance(20'000);
    list_.Sweep();
  };
  EXPECT_TRUE(device.IsWokenBy(expire));
  EXPECT_TRUE(list.IsWokenBy(expire));
  EXPECT_EQ(other.woken(), 0);
}

TEST_F(ItemListTest, ARefreshWakesNobody) {
  Add(1, MakeItem(80, 1));
  Watcher list(kWholeList);
  Add(1, MakeItem(80, 1));
  platform::SleepMs(50);
  EXPECT_EQ(list.woken(), 0);
  Add(1, MakeItem(80, 1));
  std::uint32_t bodyLength = 4;
  EXPECT_TRUE(list.IsWokenBy([&] { Add(1, MakeItem(++bodyLength, 1)); }));
}

TEST_F(ItemListTest, ChangeEventsAreNamedAfterTheSerial) {
  EXPECT_EQ(ChangeEventName(0), u"Global\\DRAVIK_CHANGES_ITEM_LIST_TALVORN_0000000");
  EXPECT_EQ(ChangeEventName(1234), u"Global\\DRAVIK_CHANGES_ITEM_LIST_TALVORN_0001234");
  EXPECT_EQ(ChangeEventName(0xFFFFFFFF), u"Global\\DRAVIK_CHANGES_ITEM_LIST_TALVORN_4294967295");
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
