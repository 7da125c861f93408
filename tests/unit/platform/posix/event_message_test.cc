#include "platform/posix/forms/event_message.h"

#include <gtest/gtest.h>

#include <ctime>

namespace talvorn::platform {
namespace {

TEST(SyslogLine, IsOneLineWithATagOfOneWord) {
  std::tm time{};
  time.tm_mon = 10;
  time.tm_mday = 7;
  time.tm_hour = 15;
  time.tm_sec = 9;
  EXPECT_EQ(SyslogLine({EventKind::kInformation, 0, 1000, "CAST RESPONSE", "root",
                        "Device Serial: \t\t12\nDevice  Status:\x1B[31m\x7F\r\nend\n"},
                       time, 42),
            "<30>Nov  7 15:00:09 CAST_RESPONSE[42]: Device Serial: 12; Device Status: [31m; end");
}

}  // namespace
}  // namespace talvorn::platform
