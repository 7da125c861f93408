#include "platform/posix/program_output.h"

#include <gtest/gtest.h>

#include <vector>

namespace talvorn::platform {
namespace {

using Arguments = std::vector<std::string>;

TEST(ProgramOutput, IsWhatAProgramWritesThatEndsWell) {
  EXPECT_EQ(OutputOf("sh", Arguments{"-c", "echo \"$0 $1\"; cat; echo lost >&2", "a b", "$c"}),
            "a b $c\n");
  EXPECT_EQ(OutputOf("true", {}), "");
  EXPECT_EQ(OutputOf("sh", Arguments{"-c", "echo begun; exit 3"}), std::nullopt);
  EXPECT_EQ(OutputOf("sh", Arguments{"-c", "echo begun; kill -9 $$"}), std::nullopt);
  EXPECT_EQ(OutputOf("no-such-program", {}), std::nullopt);
}

TEST(ProgramOutput, HasAnEnd) { EXPECT_EQ(OutputOf("yes", {}), std::nullopt); }

}  // namespace
}  // namespace talvorn::platform
