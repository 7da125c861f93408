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

TEST_F(SettingsTest, AnEmptyKeyGivesTheDefaults) {
  machine_.WriteSettings("");
  RegistryValues values;
  values.timeRequest = values.timeMaster = values.timeResponseValid = 1;
  values.timeResponseValidIfStatic = values.timeRequestGapIfStatic = 1;
  values.timeNetworkChanges = values.timeMulticastRequestAllowed = 1;
  values.preferedIpVersion = values.ipv6Active = 9;
  ASSERT_TRUE(RetrieveValues(values));
  EXPECT_EQ(values.timeRequest, 5'000u);
  EXPECT_EQ(values.timeMaster, 60'000u);
  EXPECT_EQ(values.timeResponseValid, 10'000u);
  EXPECT_EQ(values.timeResponseValidIfStatic, 30'000u);
  EXPECT_EQ(values.timeRequestGapIfStatic, 5'000u);
  EXPECT_EQ(values.timeNetworkChanges, 1'000u);
  EXPECT_EQ(values.timeMulticastRequestAllowed, 0u);
  EXPECT_EQ(values.preferedIpVersion, 4u);
  EXPECT_EQ(values.ipv6Active, 1u);
}

TEST_F(SettingsTest, ReadsEveryValueUnderItsName) {
  machine_.WriteSettings(
      "\"Time Request\"=dword:00000001\n\"Time Master\"=dword:00000002\n"
      "\"Time Response Valid\"=dword:00000003\n\"Time Response Valid IFSTATIC\"=dword:00000004\n"
      "\"Time Request Gap IFSTATIC\"=dword:00000005\n\"Time Network Changes\"=dword:00000006\n"
      "\"Time Multicast Request Allowed\"=dword:00000007\n"
      "\"TAL-VORN INI-File Static Devices\"=\"/etc/talvorn/devices.ini\"\n"
      "\"Prefered IP Version\"=dword:00000006\n\"IPv6 Active\"=dword:00000000\n"
      "\"DebugView\"=dword:80000000\n\"Log Path\"=\"D:\\\\Logs\"\n");
  RegistryValues values;
  ASSERT_TRUE(RetrieveValues(values));
  EXPECT_EQ(values.timeRequest, 1u);
  EXPECT_EQ(values.timeMaster, 2u);
  EXPECT_EQ(values.timeResponseValid, 3u);
  EXPECT_EQ(values.timeResponseValidIfStatic, 4u);
  EXPECT_EQ(values.timeRequestGapIfStatic, 5u);
  EXPECT_EQ(values.timeNetworkChanges, 6u);
  EXPECT_EQ(values.timeMulticastRequestAllowed, 7u);
  EXPECT_EQ(std::u16string(values.staticDevicesIniFile.data()), u"/etc/talvorn/devices.ini");
  EXPECT_EQ(values.preferedIpVersion, 6u);
  EXPECT_EQ(values.ipv6Active, 0u);
  EXPECT_EQ(ReadDebugView(), 0x80000000u);
  EXPECT_STREQ(ReadLogPath().data(), "D:\\Logs");
}

TEST_F(SettingsTest, ValuesOfAnotherTypeOrSizeCountAsMissing) {
  machine_.WriteSettings(
      "\"Time Request\"=\"7000\"\n\"Time Master\"=hex(4):01,02\n"
      "\"Time Response Valid\"=hex(b):01,00,00,00,00,00,00,00\n\"DebugView\"=\"1\"\n"
      "\"Log Path\"=dword:00000001\n");
  RegistryValues values;
  ASSERT_TRUE(RetrieveValues(values));
  EXPECT_EQ(values.timeRequest, 5'000u);
  EXPECT_EQ(values.timeMaster, 60'000u);
  EXPECT_EQ(values.timeResponseValid, 10'000u);
  EXPECT_EQ(ReadDebugView(), 0u);
  EXPECT_STREQ(ReadLogPath().data(), "");
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
