#include "simulator/answer_schedule.h"

#include <gtest/gtest.h>

#include <map>
#include <tuple>
#include <vector>

namespace talvorn {
namespace {

using platform::AddressFamily;

// (time, device, family) of everything that comes up until `endMs`.
using Sent = std::vector<std::tuple<std::uint64_t, std::uint32_t, AddressFamily>>;

Sent RunUntil(AnswerSchedule& schedule, std::uint64_t endMs) {
  Sent sent;
  while (const auto next = schedule.NextDueMs()) {
    if (*next > endMs) break;
    EXPECT_FALSE(*next > 0 && schedule.Take(*next - 1)) << "not before its time";
    while (const auto due = schedule.Take(*next))
      sent.emplace_back(*next, due->device, due->family);
  }
  return sent;
}

TEST(AnswerSchedule, DelaysFollowFromTheSeed) {
  const ScheduleOptions options{
      .devices = 200, .delayMinMs = 100, .delayMaxMs = 300, .lossPerMille = 250, .seed = 3};
  const auto run = [](const ScheduleOptions& chosen) {
    AnswerSchedule schedule(chosen);
    schedule.Request(AddressFamily::kIpv4, 0);
    return RunUntil(schedule, 1'000);
  };
  const Sent sent = run(options);
  EXPECT_EQ(sent, run(options));
  ScheduleOptions other = options;
  other.seed = 4;
  EXPECT_NE(sent, run(other));

  EXPECT_GE(std::get<0>(sent.front()), 100u);
  EXPECT_LT(std::get<0>(sent.front()), 130u);
  EXPECT_LE(std::get<0>(sent.back()), 300u);
  EXPECT_GT(std::get<0>(sent.back()), 270u);
  EXPECT_GT(sent.size(), 120u);  // a quarter of 200 is lost
  EXPECT_LT(sent.size(), 180u);
}

TEST(AnswerSchedule, RequestsThatMeetOnePendingAnswerShareIt) {
  AnswerSchedule schedule({.devices = 1, .delayMinMs = 50, .delayMaxMs = 50});
  for (std::uint64_t now = 0; now < 50; now += 10) schedule.Request(AddressFamily::kIpv4, now);
  schedule.Request(AddressFamily::kIpv6, 20);
  EXPECT_EQ(RunUntil(schedule, 500),
            (Sent{{50, 0, AddressFamily::kIpv4}, {70, 0, AddressFamily::kIpv6}}));
}

}  // namespace
}  // namespace talvorn
