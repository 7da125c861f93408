#include "platform/posix/forms/runtime_directory.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "testing/child_process.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

using testing::kNobody;

class RuntimeDirectoryTest : public ::testing::Test {
 protected:
  RuntimeDirectoryTest() {
    chmod(machine_.root().c_str(), 0755);
    setenv("TALVORN_RUNTIME_DIR", directory_.c_str(), 1);
  }
  // What is in the way; empty for nothing.
  static std::string Obstacle() {
    std::string obstacle;
    const bool ready = PrepareRuntimeDirectory(obstacle);
    EXPECT_EQ(ready, obstacle.empty());
    return obstacle;
  }
  // Whether another account finds this in its way.
  static bool NobodyFinds(const std::string& expected) {
    return testing::DoneByNobody([&] {
      const std::string obstacle = Obstacle();
      return obstacle.find(expected) != std::string::npos && obstacle.empty() == expected.empty();
    });
  }

  testing::ScratchMachine machine_;
  std::filesystem::path directory_ = machine_.root() / "made";
};

TEST_F(RuntimeDirectoryTest, FollowsNoLinkAndTrustsNoOtherAccount) {
  std::filesystem::create_directory(directory_);
  std::filesystem::create_symlink("/tmp", directory_ / "objects");
  EXPECT_TRUE(Obstacle().find((directory_ / "objects").string() + ": Not a directory. ") !=
              std::string::npos);
  std::filesystem::remove(directory_ / "objects");
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  ASSERT_EQ(Obstacle(), "");
  EXPECT_TRUE(NobodyFinds("made: Permission denied. ")) << "only root may be its locator";
  ASSERT_EQ(chown(directory_.c_str(), kNobody, kNobody), 0);
  EXPECT_TRUE(NobodyFinds("")) << "the folders that root has made serve others";
  ASSERT_EQ(chmod((directory_ / "objects").c_str(), 0755), 0);
  EXPECT_TRUE(NobodyFinds("objects: Permission denied. "));
  EXPECT_NE(Obstacle(), "") << "not even as root";
  ASSERT_EQ(chown(directory_.c_str(), 0, 0), 0);
  for (const mode_t mode : {0775, 0757, 01777}) {
    ASSERT_EQ(chmod(directory_.c_str(), mode), 0);
    EXPECT_NE(Obstacle().find("made: Other accounts may write to it. "), std::string::npos);
  }
  ASSERT_EQ(chmod(directory_.c_str(), 0755), 0);
  ASSERT_EQ(chown((directory_ / "mailslot").c_str(), 1234, 1234), 0);
  EXPECT_NE(Obstacle(), "") << "not even as root";
}

}  // namespace
}  // namespace talvorn::platform
