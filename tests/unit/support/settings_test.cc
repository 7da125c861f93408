#include "support/settings.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/scratch_machine.h"

namespace talvorn {
namespace {

class SettingsTest : public ::testing::Test {
 protected:
  std::u16string PathOf(std::string_view line) {
    machine_.WriteSettings(line);
    RegistryValues values;
    values.staticDevicesIniFile = {u'o', u'l', u'd'};
    EXPECT_TRUE(RetrieveValues(values));
    return values.staticDevicesIniFile.data();
  }

  testing::ScratchMachine machine_;
};

TEST_F(SettingsTest, WithoutTheKeyTheRecordIsLeftAlone) {
  RegistryValues values;
  values.timeRequest = 1;
  EXPECT_FALSE(RetrieveValues(values));
  EXPECT_EQ(values.timeRequest, 1u);
  EXPECT_EQ(ReadDebugView(), 0u);
  EXPECT_STREQ(ReadLogPath().data(), "");
}

TEST_F(SettingsTest, ReadsEachNumberUnderItsNameOrItsDefault) {
  const struct {
    std::string name;
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
    SCOPED_TRACE(number.name);
    // None, one of another type, one of another size: all of them count as missing.
    for (const std::string stored :
         {"=dword:00000077", "", "=\"7000\"", "=hex(4):01,02", "=hex(b):01,00,00,00,00,00,00,00"}) {
      machine_.WriteSettings(stored.empty() ? "" : "\"" + number.name + "\"" + stored);
      RegistryValues values;
      values.*number.value = 9;
      ASSERT_TRUE(RetrieveValues(values));
      const bool good = stored.starts_with("=dword");
      EXPECT_EQ(values.*number.value, good ? 0x77 : number.otherwise) << stored;
    }
  }
  machine_.WriteSettings("\"DebugView\"=dword:80000000\n\"Log Path\"=\"D:\\\\Logs\"\n");
  EXPECT_EQ(ReadDebugView(), 0x80000000u);
  EXPECT_STREQ(ReadLogPath().data(), "D:\\Logs");
}

TEST_F(SettingsTest, APathIsTakenUpToItsFullLengthOnly) {
  const std::string longest(1'023, 'p');
  EXPECT_EQ(PathOf("\"TAL-VORN INI-File Static Devices\"=\"" + longest + "\""),
            std::u16string(1'023, u'p'));
  EXPECT_EQ(PathOf("\"TAL-VORN INI-File Static Devices\"=\"" + longest + "p\""), u"");
  // An expandable string is another type.
  EXPECT_EQ(PathOf("\"TAL-VORN INI-File Static Devices\"=hex(2):41,00,00,00"), u"");
}

}  // namespace
}  // namespace talvorn
