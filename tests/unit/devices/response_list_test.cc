#include "devices/response_list.h"

#include <gtest/gtest.h>

#include <string>

#include "devices/pausing_clock.h"
#include "support/debug_trace.h"

namespace talvorn {
namespace {

DeviceRecord Record(std::string_view serial) {
  DeviceRecord record;
  record.deviceSerial.Assign(serial);
  return record;
}

class ResponseListTest : public ::testing::Test {
 protected:
  ResponseListTest() { DebugTrace().SetEnabled(0); }

  void Add(const DeviceRecord& record, std::uint32_t validityMs = 0) {
    EXPECT_TRUE(list_.Add(&record, validityMs));
  }
  std::string Serials() {
    const std::byte* snapshot = nullptr;
    const std::uint32_t count = list_.GetResponses(snapshot, 4);
    std::string text;
    for (std::uint32_t i = 0; i < count; ++i) {
      const auto record = DecodeDeviceRecord({snapshot + i * kDeviceRecordSize, kDeviceRecordSize});
      text.append(record.deviceSerial.view()) += ' ';
    }
    return text;
  }

  testing::PausingClock clock_;
  CResponseList list_{clock_};
};

TEST_F(ResponseListTest, AnEntryThatExpiresNowSurvivesTheSweep) {
  Add(Record("1"));  // 10 s by default
  Add(Record("2"), 30'000);
  clock_.Advance(10'000);
  list_.Sweep();
  EXPECT_EQ(Serials(), "1 2 ");
  Add(Record("3"), 1);
  Add(Record("3"), 5'000);  // a refresh moves the expiry forward
  clock_.Advance(2);
  list_.Sweep();
  EXPECT_EQ(Serials(), "2 3 ");
  clock_.Advance(19'998);
  list_.Sweep();
  EXPECT_EQ(Serials(), "2 ");
  EXPECT_EQ(list_.count(), 1u);
}

TEST_F(ResponseListTest, IsBoundedAndSweptInPieces) {
  const auto addAll = [this](std::size_t from, std::size_t to) {
    for (std::size_t serial = from; serial < to; ++serial) Add(Record(std::to_string(serial)));
  };
  addAll(0, CResponseList::kMostEntries - 1);
  clock_.Advance(5'000);
  addAll(CResponseList::kMostEntries - 1, CResponseList::kMostEntries + 2);
  EXPECT_EQ(list_.count(), CResponseList::kMostEntries);
  Add(Record("0"));  // what is known is confirmed all the same

  clock_.Advance(5'001);
  std::size_t pauses = 0;
  clock_.whilePaused = [&] {
    if (!list_.lock.try_lock()) return;
    ++pauses;
    Add(Record("/"));
    Add(Record("in"));
    list_.lock.unlock();
  };
  list_.Sweep();
  EXPECT_GE(pauses, CResponseList::kMostEntries / kSweepPiece - 1);
  EXPECT_EQ(Serials(), "/ 0 " + std::to_string(CResponseList::kMostEntries - 1) + " in ");
}

}  // namespace
}  // namespace talvorn
