#include "simulator/status_reply.h"

#include <gtest/gtest.h>

#include <string>

#include "devices/status_frame.h"

namespace talvorn {
namespace {

TEST(StatusRequest, IsReadAndItsMistakesAreSaid) {
  const std::string sid = "01234567-89ab-cdef-0123-456789abcdef";
  const auto good = EncodeStatusRequest("SID=" + sid);
  EXPECT_EQ(ParseStatusRequest(good).sid, sid);
  EXPECT_EQ(ParseStatusRequest(good).mistake, "");
  // Every byte counts.
  for (std::size_t i = 0; i < good.size(); ++i) {
    auto wrong = good;
    wrong[i] ^= std::byte{0x40};
    EXPECT_NE(ParseStatusRequest(wrong).mistake, "") << i;
  }
  for (std::size_t size = 0; size < good.size(); ++size)
    EXPECT_NE(ParseStatusRequest(std::span(good).first(size)).mistake, "") << size;
}

}  // namespace
}  // namespace talvorn
