#include "devices/response_list.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/fault_injection.h"
#include "support/debug_trace.h"
#include "testing/fake_clock.h"

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

  testing::FakeClock clock_;
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

TEST_F(ResponseListTest, WithoutItsThreadTheListStillTakesEntries) {
  platform::ArmFault(platform::Fault::kThreadStart, 1);
  EXPECT_FALSE(list_.Start(1'000));
  platform::DisarmFaults();
  Add(Record("1"));
  EXPECT_EQ(list_.count(), 1u);
  list_.Stop();
}

}  // namespace
}  // namespace talvorn
