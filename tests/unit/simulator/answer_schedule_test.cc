#include "simulator/answer_schedule.h"

#include <gtest/gtest.h>

#include <utility>

namespace talvorn {
namespace {

using platform::AddressFamily;

TEST(AnswerSchedule, RequestsThatMeetOnePendingAnswerShareIt) {
  AnswerSchedule schedule({.devices = 1, .delayMinMs = 50, .delayMaxMs = 50});
  for (std::uint64_t now = 0; now < 50; now += 10) schedule.Request(AddressFamily::kIpv4, now);
  schedule.Request(AddressFamily::kIpv6, 20);
  for (const auto& [due, family] :
       {std::pair{50u, AddressFamily::kIpv4}, {70u, AddressFamily::kIpv6}}) {
    EXPECT_EQ(schedule.NextDueMs(), due);
    EXPECT_FALSE(schedule.Take(due - 1));
    EXPECT_EQ(schedule.Take(due).value().family, family);
  }
  EXPECT_FALSE(schedule.NextDueMs());
}

}  // namespace
}  // namespace talvorn
