#include "platform/posix/runtime_directory.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "testing/child_process.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

using testing::ResultInChild;

constexpr uid_t kNobody = 65534;

class RuntimeDirectoryTest : public ::testing::Test {
 protected:
  RuntimeDirectoryTest() {
    chmod(machine_.root().c_str(), 0755);
    Use(machine_.root() / "made");
  }
  void Use(const std::filesystem::path& path) {
    directory_ = path;
    setenv("TALVORN_RUNTIME_DIR", path.c_str(), 1);
  }
  [[nodiscard]] mode_t ModeOf(const char* name) const {
    struct stat status {};
    return stat((directory_ / name).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
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
    return ResultInChild([&] {
             if (setresuid(kNobody, kNobody, kNobody) != 0) return 2;
             const std::string obstacle = Obstacle();
             if (obstacle != expected) fprintf(stderr, "found: %s\n", obstacle.c_str());
             return obstacle == expected ? 0 : 1;
           }) == 0;
  }

  testing::ScratchMachine machine_;
  std::filesystem::path directory_;
};

TEST_F(RuntimeDirectoryTest, IsMadeForEverybodyToUse) {
  const mode_t before = umask(077);
  EXPECT_EQ(Obstacle(), "");
  umask(before);
  EXPECT_EQ(ModeOf("."), 0755u);
  EXPECT_EQ(ModeOf("mailslot"), 01777u);
  EXPECT_EQ(ModeOf("objects"), 01777u);
  chmod((directory_ / "objects").c_str(), 0700);
  EXPECT_EQ(Obstacle(), "");
  EXPECT_EQ(ModeOf("objects"), 01777u);
  if (geteuid() == 0) {
    EXPECT_TRUE(NobodyFinds("")) << "what root has made serves others";
  }
}

TEST_F(RuntimeDirectoryTest, SaysWhatIsInTheWay) {
  const std::string advice =
      geteuid() == 0
          ? ". Remove what is in the way, or set TALVORN_RUNTIME_DIR to another directory."
          : ". Run the locator as root, or set TALVORN_RUNTIME_DIR to a directory you can write.";
  const std::string start = "cannot use the runtime directory ";
  Use(machine_.root() / "none/made");
  EXPECT_EQ(Obstacle(), start + directory_.string() + ": No such file or directory" + advice);
  Use(machine_.root() / "file");
  std::ofstream(directory_) << "";
  EXPECT_EQ(Obstacle(), start + directory_.string() + ": Not a directory" + advice);
  Use(machine_.root() / "linked");
  std::filesystem::create_directory(directory_);
  std::filesystem::create_symlink("/tmp", directory_ / "objects");
  EXPECT_EQ(Obstacle(), start + (directory_ / "objects").string() + ": Not a directory" + advice);
  Use("relative");
  EXPECT_EQ(Obstacle(), start +
                            "relative: Not an absolute path. Set TALVORN_RUNTIME_DIR to a path "
                            "that begins with /.");
}

TEST_F(RuntimeDirectoryTest, TrustsNoDirectoryOfAnotherAccount) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const std::string advice =
      "Run the locator as root, or set TALVORN_RUNTIME_DIR to a directory you can write.";
  EXPECT_TRUE(NobodyFinds("cannot use the runtime directory " + directory_.string() +
                          ": Permission denied. " + advice));
  ASSERT_EQ(Obstacle(), "");
  ASSERT_EQ(chmod((directory_ / "objects").c_str(), 0755), 0);
  EXPECT_TRUE(NobodyFinds("cannot use the runtime directory " + (directory_ / "objects").string() +
                          ": Permission denied. " + advice));
  ASSERT_EQ(chown((directory_ / "mailslot").c_str(), 1234, 1234), 0);
  EXPECT_TRUE(NobodyFinds("cannot use the runtime directory " + (directory_ / "mailslot").string() +
                          ": It belongs to another account. " + advice));
  EXPECT_NE(Obstacle(), "") << "not even as root";
}

}  // namespace
}  // namespace talvorn::platform
