#include "platform/ini_file.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/text_encoding.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

class IniFile : public ::testing::Test {
 protected:
  void Write(std::string_view bytes) const {
    std::ofstream(Path(), std::ios::binary | std::ios::trunc) << bytes;
  }
  [[nodiscard]] std::string Path() const { return (machine_.root() / "devices.ini").string(); }
  [[nodiscard]] std::u16string WidePath() const { return Utf8ToWide(Path()); }

  // The names with their terminators, cut to what the result counts.
  [[nodiscard]] std::u16string Sections(std::size_t size = 256) const {
    std::vector<char16_t> names(size, u'#');
    const std::uint32_t count = ProfileSectionNames(names, WidePath());
    EXPECT_EQ(names[count], u'\0');
    return {names.data(), count};
  }

  testing::ScratchMachine machine_;
};

using namespace std::string_literals;

std::u16string Names(std::initializer_list<std::u16string_view> names) {
  std::u16string list;
  for (const std::u16string_view name : names) (list += name) += u'\0';
  return list;
}

TEST_F(IniFile, SectionsComeInFileOrderWithWhatMakesNoneLeftOut) {
  Write("ignored=1\r\n; [comment]\r\n[ host b ] ; x\r\n  [hosta]\n[]\n[open\n=\n[hosta]\r[last]");
  EXPECT_EQ(Sections(), Names({u"host b", u"hosta", u"hosta", u"last"}));
  Write("");
  EXPECT_EQ(Sections(), u"");
}

TEST_F(IniFile, SectionNamesAreCutToTheBuffer) {
  Write("[abc]\n[de]\n");
  EXPECT_EQ(Sections(10), Names({u"abc", u"de"}));
  EXPECT_EQ(Sections(7), u"abc\0d"s);
  EXPECT_EQ(Sections(4), u"ab");
  EXPECT_EQ(Sections(2), u"");
  EXPECT_EQ(Sections(1), u"");
  EXPECT_EQ(ProfileSectionNames({}, WidePath()), 0u);
}

}  // namespace
}  // namespace talvorn::platform
