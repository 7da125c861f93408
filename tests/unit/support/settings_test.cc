// Settings as they are stored, in every form that they should have and should not.
#include "support/settings.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "testing/scratch_machine.h"

namespace talvorn {
namespace {

using testing::Stored;

enum : std::uint32_t {
  kNone,
  kString,
  kExpand,
  kBinary,
  kNumber,
  kBigEndian,
  kMulti = 7,
  kLong = 11
};

std::string Wide(std::u16string_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t)};
}
std::string Terminated(std::u16string_view text) { return Wide(std::u16string(text) + u'\0'); }

class Settings : public ::testing::Test {
 protected:
  void Store(std::string_view name, const Stored& value) const {
    machine_.Store("Software\\Kestrow\\TAL-VORN\\Settings", name, value);
  }

  static RegistryValues Retrieve() {
    RegistryValues values;
    values.timeRequest = 1;
    values.staticDevicesIniFile = {u'o', u'l', u'd'};
    EXPECT_TRUE(RetrieveValues(values));
    return values;
  }

  testing::ScratchMachine machine_;
};

TEST_F(Settings, EachNumberHasItsNameAndItsDefault) {
  const struct {
    std::string_view name;
    std::uint32_t RegistryValues::*value;
    std::uint32_t otherwise;
  } numbers[] = {
      {"Time Request", &RegistryValues::timeRequest, 5'000},
      {"Time Master", &RegistryValues::timeMaster, 60'000},
      {"Time Response Valid", &RegistryValues::timeResponseValid, 10'000},
      {"Time Response Valid IFSTATIC", &RegistryValues::timeResponseValidIfStatic, 30'000},
      {"Time Request Gap IFSTATIC", &RegistryValues::timeRequestGapIfStatic, 5'000},
      {"Time Network Changes", &RegistryValues::timeNetworkChanges, 1'000},
      {"Time Multicast Request Allowed", &RegistryValues::timeMulticastRequestAllowed, 0},
      {"Prefered IP Version", &RegistryValues::preferedIpVersion, 4},
      {"IPv6 Active", &RegistryValues::ipv6Active, 1},
  };
  for (const auto& number : numbers) {
    Store(number.name, {kNumber, std::string("\x77\0\0\x80", 4)});
    EXPECT_EQ(Retrieve().*number.value, 0x80000077u) << number.name;
    Store(number.name, {kString, Terminated(u"7000")});
    EXPECT_EQ(Retrieve().*number.value, number.otherwise) << number.name;
  }
}

TEST_F(Settings, ANumberHasItsTypeAndFourBytes) {
  const std::string four("\x58\x1B\0\0", 4);
  Store("DebugView", {kNumber, four});
  EXPECT_EQ(ReadDebugView(), 7'000u);
  const std::vector<Stored> wrong = {
      {kString, Terminated(u"7")},
      {kExpand, Terminated(u"7")},
      {kMulti, four},
      {kBinary, four},
      {kNone, four},
      {kBigEndian, four},
      {kLong, four + std::string(4, '\0')},
      {kNumber, four.substr(0, 3)},
      {kNumber, four + four},
      {kNumber, ""},
  };
  for (const Stored& value : wrong) {
    Store("DebugView", value);
    EXPECT_EQ(ReadDebugView(), 0u) << value;
  }
}

TEST_F(Settings, APathIsAStringThatFitsWithOrWithoutItsEnd) {
  const std::u16string path = u"C:\\a";
  const std::u16string longest(1'023, u'p');
  const std::vector<std::tuple<Stored, std::u16string, bool>> cases = {
      {{kString, Terminated(path)}, path, true},
      {{kString, Terminated(longest)}, longest, true},
      {{kString, Terminated(longest) + "c"}, u"", false},
      {{kString, Terminated(longest + u"p")}, u"", true},
      {{kString, Terminated(std::u16string(5'000, u'p'))}, u"", false},
      {{kString, Wide(path)}, path, true},
      {{kString, Wide(longest)}, longest, false},
      {{kString, Wide(longest + u"p")}, u"", false},
      {{kString, Terminated(u"a") + Terminated(u"b")}, u"a", false},
      {{kString, Terminated(u"a") + Terminated(longest)}, u"", false},
      {{kString, Wide(u"ab") + "c"}, u"ab", false},
      {{kString, ""}, u"", true},
      {{kExpand, Terminated(path)}, u"", true},
      {{kMulti, Terminated(path) + Terminated(u"")}, u"", true},
      {{kBinary, Terminated(path)}, u"", true},
      {{kNumber, Wide(u"ab")}, u"", true},
  };
  for (const auto& [value, expected, narrowToo] : cases) {
    Store("TAL-VORN INI-File Static Devices", value);
    EXPECT_EQ(Retrieve().staticDevicesIniFile.data(), expected) << value;
    if (!narrowToo) continue;  // what is too long for one form may not be for the other
    Store("Log Path", value);
    EXPECT_EQ(ReadLogPath().data(), std::string(expected.begin(), expected.end())) << value;
  }
}

}  // namespace
}  // namespace talvorn
