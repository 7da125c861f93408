#include "platform/file_replacement.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

std::string ContentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class FileReplacement : public ::testing::Test {
 protected:
  [[nodiscard]] std::error_code Replace(std::string_view content) const {
    return ReplaceFileContent(file_.string(), content);
  }
  [[nodiscard]] std::ptrdiff_t files() const {
    return std::distance(std::filesystem::directory_iterator(folder_), {});
  }
  void SetUp() override { std::filesystem::create_directory(folder_); }

  talvorn::testing::ScratchMachine machine_;
  std::filesystem::path folder_ = machine_.root() / "textfiles";
  std::filesystem::path file_ = folder_ / "talvorn.prom";
};

TEST_F(FileReplacement, LeavesTheNewFileAlone) {
  EXPECT_EQ(Replace("a longer text\n"), std::error_code());
  EXPECT_EQ(Replace("short\r\n"), std::error_code());
  EXPECT_EQ(ContentOf(file_), "short\r\n");
  EXPECT_EQ(files(), 1);
}

TEST_F(FileReplacement, ReplacesNoFolder) {
  std::filesystem::create_directory(file_);
  EXPECT_EQ(Replace("text"), std::errc::is_a_directory);
  EXPECT_EQ(files(), 1);
}

TEST_F(FileReplacement, SaysThatThereIsNoFolder) {
  std::filesystem::remove(folder_);
  EXPECT_EQ(Replace("text"), std::errc::no_such_file_or_directory);
}

}  // namespace
}  // namespace talvorn::platform
