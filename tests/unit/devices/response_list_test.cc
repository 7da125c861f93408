#include "devices/response_list.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/fault_injection.h"
#include "support/debug_trace.h"
#include "testing/fake_clock.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

constexpr std::string_view kV4 = "10.0.0.1";
constexpr std::string_view kV6 = "fe80::1";

DeviceRecord Record(std::string_view serial, std::string_view address = kV4,
                    std::string_view alias = "") {
  DeviceRecord record;
  record.deviceSerial.Assign(serial);
  record.deviceAlias.Assign(alias);
  if (address.find(':') != std::string_view::npos) {
    record.deviceIpv6.Assign(address);
  } else {
    record.deviceIpv4.Assign(address);
  }
  return record;
}

class ResponseListTest : public ::testing::Test {
 protected:
  ResponseListTest() { DebugTrace().SetEnabled(0); }

  void Add(const DeviceRecord& record, std::uint32_t validityMs = 0) {
    EXPECT_TRUE(list_.Add(&record, validityMs));
  }
  std::vector<DeviceRecord> Responses() {
    const std::byte* snapshot = nullptr;
    const std::uint32_t count = list_.GetResponses(snapshot, 4);
    std::vector<DeviceRecord> records;
    for (std::uint32_t i = 0; i < count; ++i)
      records.push_back(DecodeDeviceRecord({snapshot + i * kDeviceRecordSize, kDeviceRecordSize}));
    return records;
  }
  std::string Serials() {
    std::string text;
    for (const DeviceRecord& record : Responses()) text.append(record.deviceSerial.view()) += ' ';
    return text;
  }

  testing::FakeClock clock_;
  CResponseList list_{clock_};
};

TEST_F(ResponseListTest, ARecordOfTheSameDeviceAndFamilyIsRefreshedInPlace) {
  Add(Record("1", kV4, "old"));
  Add(Record("1", kV6, "six"));
  Add(Record("1", "10.0.0.9", "new"));
  EXPECT_EQ(list_.count(), 2u);
  const auto records = Responses();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].deviceAlias.view(), "new");
  EXPECT_EQ(records[0].deviceIpv4.view(), "10.0.0.9");
}

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

TEST_F(ResponseListTest, AnEmptyListHasNoSnapshot) {
  const std::byte* snapshot = reinterpret_cast<const std::byte*>(this);
  EXPECT_EQ(list_.GetResponses(snapshot, 4), 0u);
  EXPECT_EQ(snapshot, nullptr);
  EXPECT_FALSE(list_.Add(nullptr, 0));
}

TEST_F(ResponseListTest, TheExpiryThreadSweepsWithTheValidityOfStart) {
  ASSERT_TRUE(list_.Start(2'000));
  {
    const std::lock_guard guard(list_.lock);
    Add(Record("1"));
  }
  clock_.Advance(2'001);
  EXPECT_TRUE(testing::WaitUntil([this] { return list_.count() == 0; }));
  list_.Stop();
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
