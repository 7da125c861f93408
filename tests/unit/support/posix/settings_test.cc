#include "support/settings.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/scratch_machine.h"

namespace talvorn {
namespace {

TEST(Settings, ReadsEachNumberUnderItsNameOrItsDefault) {
  const testing::ScratchMachine machine;
  const auto write = [&](const std::string& lines) {
    std::ofstream(machine.registry(), std::ios::trunc)
        << "[HKEY_LOCAL_MACHINE\\Software\\Kestrow\\TAL-VORN\\Settings]\n"
        << lines << '\n';
  };
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
      write(stored.empty() ? "" : "\"" + number.name + "\"" + stored);
      RegistryValues values;
      values.*number.value = 9;
      ASSERT_TRUE(RetrieveValues(values));
      const bool good = stored.starts_with("=dword");
      EXPECT_EQ(values.*number.value, good ? 0x77 : number.otherwise) << stored;
    }
  }
  write("\"DebugView\"=dword:80000000\n\"Log Path\"=\"D:\\\\Logs\"\n");
  EXPECT_EQ(ReadDebugView(), 0x80000000u);
  EXPECT_STREQ(ReadLogPath().data(), "D:\\Logs");
}

}  // namespace
}  // namespace talvorn
