#include "support/byte_io.h"

#include <gtest/gtest.h>

#include <array>

namespace talvorn {
namespace {

TEST(ByteReader, YieldsZeroFromTheFirstReadPastTheEndOn) {
  const std::array<std::byte, 6> data{std::byte{1}, std::byte{2}, std::byte{3},
                                      std::byte{4}, std::byte{5}, std::byte{6}};
  ByteReader reader(data);
  EXPECT_EQ(reader.U32Big(), 0x01020304u);
  EXPECT_EQ(reader.U32Little(), 0u);
  EXPECT_FALSE(reader.ok());
  EXPECT_EQ(reader.U16Little(), 0u);
  EXPECT_EQ(reader.remaining(), 0u);
  EXPECT_EQ(U32BigAt(data, 2), 0x03040506u);
  EXPECT_EQ(U32BigAt(data, 3), 0u);
  EXPECT_EQ(U32BigAt(data, 7), 0u);
}

}  // namespace
}  // namespace talvorn
