// Settings from the registry of the system, in every form that they should not have.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"
#include "support/settings.h"
#include "testing/scratch_machine.h"

namespace talvorn {
namespace {

using platform::ToNative;

// A value as it is stored.
struct Stored {
  DWORD type;
  std::string data;
};

std::ostream& operator<<(std::ostream& out, const Stored& stored) {
  return out << "type " << stored.type << ", " << stored.data.size() << " bytes";
}

std::string Wide(std::u16string_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t)};
}
std::string Terminated(std::u16string_view text) { return Wide(std::u16string(text) + u'\0'); }

class SettingsRegistry : public ::testing::Test {
 protected:
  // Stores exactly these bytes as the value, and looks whether they stand there.
  static void Store(std::u16string_view valueName, const Stored& value) {
    const std::u16string name(valueName);
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, ToNative(std::u16string(kSettingsKey)), 0,
                              nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    // The call takes in a terminator that happens to stand behind a text.
    const std::string data = value.data + "\xFF\xFF";
    EXPECT_EQ(RegSetValueExW(key, ToNative(name), 0, value.type,
                             reinterpret_cast<const BYTE*>(data.data()),
                             static_cast<DWORD>(value.data.size())),
              ERROR_SUCCESS);
    DWORD type = 0;
    auto size = static_cast<DWORD>(data.size());
    std::string there(data.size(), '\0');
    EXPECT_EQ(RegQueryValueExW(key, ToNative(name), nullptr, &type,
                               reinterpret_cast<BYTE*>(there.data()), &size),
              ERROR_SUCCESS);
    there.resize(size);
    EXPECT_EQ(type, value.type);
    EXPECT_EQ(there, value.data);
    RegCloseKey(key);
  }

  static RegistryValues Retrieve() {
    RegistryValues values;
    values.timeRequest = 1;
    values.staticDevicesIniFile = {u'o', u'l', u'd'};
    EXPECT_TRUE(RetrieveValues(values));
    return values;
  }

 private:
  testing::ScratchMachine machine_;
};

TEST_F(SettingsRegistry, ANumberIsADwordOfFourBytes) {
  const std::string four("\x58\x1B\0\0", 4);
  Store(u"Time Request", {REG_DWORD, four});
  EXPECT_EQ(Retrieve().timeRequest, 7'000u);
  Store(u"DebugView", {REG_DWORD, four});
  EXPECT_EQ(ReadDebugView(), 7'000u);

  const Stored wrong[] = {
      {REG_SZ, Terminated(u"7000")},
      {REG_SZ, Terminated(u"7")},
      {REG_EXPAND_SZ, Terminated(u"7")},
      {REG_MULTI_SZ, four},
      {REG_BINARY, four},
      {REG_NONE, four},
      {REG_DWORD_BIG_ENDIAN, four},
      {REG_QWORD, four + std::string(4, '\0')},
      {REG_QWORD, four},
      {REG_DWORD, four.substr(0, 3)},
      {REG_DWORD, four + four},
      {REG_DWORD, std::string(5, '\x01')},
      {REG_DWORD, ""},
  };
  for (const Stored& value : wrong) {
    Store(u"Time Request", value);
    EXPECT_EQ(Retrieve().timeRequest, 5'000u) << value;
    Store(u"DebugView", value);
    EXPECT_EQ(ReadDebugView(), 0u) << value;
  }
}

TEST_F(SettingsRegistry, APathIsAStringThatFits) {
  constexpr std::u16string_view kName = u"TAL-VORN INI-File Static Devices";
  const std::u16string longest(1'023, u'p');
  const struct {
    Stored value;
    std::u16string expected;
  } cases[] = {
      {{REG_SZ, Terminated(u"C:\\a.ini")}, u"C:\\a.ini"},
      {{REG_SZ, Terminated(longest)}, longest},
      {{REG_SZ, Terminated(longest + u"p")}, u""},
      {{REG_SZ, Terminated(std::u16string(5'000, u'p'))}, u""},
      // Terminated or not, a text ends where its data ends.
      {{REG_SZ, Wide(u"C:\\a.ini")}, u"C:\\a.ini"},
      {{REG_SZ, Wide(longest)}, longest},
      {{REG_SZ, Wide(longest + u"p")}, u""},
      {{REG_SZ, Terminated(u"a") + Terminated(u"b")}, u"a"},
      {{REG_SZ, Wide(u"ab") + "c"}, u"ab"},
      {{REG_SZ, ""}, u""},
      {{REG_EXPAND_SZ, Terminated(u"C:\\a.ini")}, u""},
      {{REG_MULTI_SZ, Terminated(u"C:\\a.ini") + Terminated(u"")}, u""},
      {{REG_BINARY, Terminated(u"C:\\a.ini")}, u""},
      {{REG_DWORD, Wide(u"ab")}, u""},
      {{REG_QWORD, Wide(u"abcd")}, u""},
  };
  for (const auto& c : cases) {
    Store(kName, c.value);
    EXPECT_EQ(Retrieve().staticDevicesIniFile.data(), c.expected) << c.value;
  }
}

TEST_F(SettingsRegistry, TheLogPathIsAStringInTheNarrowCodePage) {
  const std::u16string longest(1'023, u'p');
  const struct {
    Stored value;
    std::string expected;
  } cases[] = {
      {{REG_SZ, Terminated(u"D:\\Logs")}, "D:\\Logs"},
      {{REG_SZ, Wide(u"D:\\Logs")}, "D:\\Logs"},
      {{REG_SZ, Terminated(longest)}, std::string(1'023, 'p')},
      {{REG_SZ, Terminated(longest + u"p")}, ""},
      {{REG_SZ, ""}, ""},
      {{REG_EXPAND_SZ, Terminated(u"D:\\Logs")}, ""},
      {{REG_MULTI_SZ, Terminated(u"D:\\Logs") + Terminated(u"")}, ""},
      {{REG_BINARY, "D:\\Logs"}, ""},
      {{REG_DWORD, "D:\\L"}, ""},
      {{REG_QWORD, "D:\\Logs\\"}, ""},
  };
  for (const auto& c : cases) {
    Store(u"Log Path", c.value);
    EXPECT_EQ(ReadLogPath().data(), c.expected) << c.value;
  }
}

}  // namespace
}  // namespace talvorn
