#include "support/byte_io.h"

#include <gtest/gtest.h>

namespace talvorn {
namespace {

TEST(ByteReader, YieldsZeroFromTheFirstReadPastTheEndOn) {
  const auto data = AsBytes("\1\2\3\4\5\6");
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
