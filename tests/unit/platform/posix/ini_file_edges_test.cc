// Where the systems that have these functions do not agree among themselves.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <fstream>
#include <string>

#include "platform/ini_file.h"
#include "platform/text_encoding.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

using namespace std::string_literals;

class IniFileEdges : public ::testing::Test {
 protected:
  [[nodiscard]] std::u16string Sections(std::size_t size) const {
    std::array<char16_t, 100> names{u'#'};
    return {names.data(), ProfileSectionNames(std::span(names).first(size), Utf8ToWide(path_))};
  }

  testing::ScratchMachine machine_;
  std::string path_ = (machine_.root() / "devices.ini").string();
};

TEST_F(IniFileEdges, ASectionEndsAtTheFirstBracketAndNothingStandsOutsideOfOne) {
  std::ofstream(path_) << "IpAddress=outside\n[ host b ] ; [x]\n";
  EXPECT_EQ(Sections(100), u"host b\0"s);
  std::array<char16_t, 16> value{u'#'};
  EXPECT_EQ(ProfileString(u"", u"IpAddress", value, Utf8ToWide(path_)), 0u);
}

TEST_F(IniFileEdges, NamesMayFillTheBufferToTheLast) {
  std::ofstream(path_) << "[abc]\n[de]\n";
  EXPECT_EQ(Sections(8), u"abc\0de\0"s);
}

TEST_F(IniFileEdges, APipeThatNobodyWritesToHasNoSections) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(Sections(100), u"");
}

}  // namespace
}  // namespace talvorn::platform
