#include "platform/posix/forms/udp_table.h"

#include <gtest/gtest.h>

#include "platform/udp_drops.h"

namespace talvorn::platform {
namespace {

// As the kernel writes them: blanks at the front and at the end of lines.
constexpr std::string_view kTable =
    "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode ref pointer drops             \n"
    "  100: 00000000:12D1 00000000:0000 07 00000000:00000000 00:00000000 00000000   997        0 "
    "31001 2 0000000000000000 41         \n"
    "  101: 0100007F:1234 0100007F:12D1 01 00000000:00000000 00:00000000 00000000   997        0 "
    "31002 2 0000000000000000 500        \n"
    "  102: 00000000000000000000000000000000:12D1 00000000000000000000000000000000:0000 07 "
    "00000000:00000000 00:00000000 00000000   997        0 31003 2 0000000000000000 4294967295\n";

TEST(UdpTable, AddsUpTheDropsOfThePort) {
  EXPECT_EQ(DropsInUdpTable(kTable, 4817), std::uint64_t{41} + 4294967295U);
  EXPECT_EQ(DropsInUdpTable(kTable, 0x1234), 500U);
  EXPECT_EQ(DropsInUdpTable(kTable, 1), 0U);
}

TEST(UdpTable, SurvivesEveryPrefix) {
  for (std::size_t size = 0; size < kTable.size(); ++size)
    EXPECT_LE(DropsInUdpTable(kTable.substr(0, size), 4817), std::uint64_t{41} + 4294967295U);
  EXPECT_EQ(DropsInUdpTable(":12D1\n1: :12D1\n1: x:12D1 y\n\n1: 0:12D1 z -4\n", 4817), 0U);
}

TEST(UdpTable, IsThere) { EXPECT_TRUE(UdpReceiveDrops(4817)); }

}  // namespace
}  // namespace talvorn::platform
