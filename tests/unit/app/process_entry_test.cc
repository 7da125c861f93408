#include "app/process_entry.h"

#include <gtest/gtest.h>

namespace talvorn {
namespace {

TEST(Countdown, ShowsEveryTenSecondsAndEveryPassOfTheLastTen) {
  const std::optional<std::uint32_t> none;
  const std::tuple<std::uint32_t, std::uint64_t, std::optional<std::uint32_t>> cases[] = {
      {30'000, 0, none},      // the full time to live is never shown
      {30'000, 1'000, none},  // 29 s
      {30'000, 10'000, 20},   // 20 s
      {30'000, 9'001, 20},    // 20.999 s
      {30'000, 9'000, none},  // 21 s
      {30'000, 20'000, 10},   // 10 s
      {30'000, 20'001, 9},    // below 10 s
      {30'000, 29'999, 0},   {0, 0, none},
  };
  for (const auto& [timeToLive, elapsed, shown] : cases)
    EXPECT_EQ(CountdownSeconds(timeToLive, elapsed), shown) << timeToLive << " " << elapsed;
}

}  // namespace
}  // namespace talvorn
