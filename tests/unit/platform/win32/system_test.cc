#include <gtest/gtest.h>

#include <array>
#include <regex>
#include <string>

#include "platform/directories.h"
#include "platform/event_log.h"
#include "platform/fault_injection.h"
#include "platform/mailslot.h"
#include "platform/registry.h"
#include "platform/uuid.h"
#include "platform/win32/handle.h"
#include "testing/scratch_machine.h"

// Behind the header that sets the switches.
#include <sddl.h>

namespace talvorn::platform {
namespace {

constexpr std::u16string_view kKey = u"SOFTWARE\\Kestrow\\TAL-VORN\\Interfaces";

TEST(Registry, TellsMissingValuesFromThoseThatDoNotFit) {
  const testing::ScratchMachine machine;
  EXPECT_FALSE(RegistryKey::Open(kKey, RegistryAccess::kRead).valid());
  machine.WriteKey("SOFTWARE", "Interfaces", "\"text\"=\"abc\"\n\"long\"=hex(b):1,2,3,4,5,6,7,8\n");
  const RegistryKey key = RegistryKey::Open(kKey, RegistryAccess::kRead);
  ASSERT_TRUE(key.valid());
  std::array<std::byte, 8> data{};
  RegistryResult result = key.Query(u"TEXT", data);
  EXPECT_EQ(result.status, RegistryStatus::kOk);
  EXPECT_EQ(result.type, kRegistryString);
  EXPECT_EQ(result.size, 8u) << "three characters and the terminator";
  EXPECT_EQ(data[0], std::byte{'a'});
  result = key.Query(u"long", std::span(data).first(4));
  EXPECT_EQ(result.status, RegistryStatus::kMoreData);
  EXPECT_EQ(key.Query(u"none", data).status, RegistryStatus::kMissing);

  std::array<char, 4> narrow{};
  result = key.QueryNarrow(u"text", narrow);
  EXPECT_EQ(result.status, RegistryStatus::kOk);
  EXPECT_STREQ(narrow.data(), "abc");
  EXPECT_EQ(key.QueryNarrow(u"text", std::span(narrow).first(3)).status, RegistryStatus::kMoreData);
}

TEST(Registry, EnumeratesAndWritesValues) {
  const testing::ScratchMachine machine;
  RegistryKey key = RegistryKey::Create(kKey);
  ASSERT_TRUE(key.valid());
  EXPECT_TRUE(key.SetDword(u"10.0.0.1", 0x01020304));
  std::array<char16_t, 16> name{};
  std::array<std::byte, 4> data{};
  const RegistryResult result = key.Enumerate(0, name, data);
  EXPECT_EQ(result.status, RegistryStatus::kOk);
  EXPECT_EQ(result.type, kRegistryDword);
  EXPECT_EQ(std::u16string(name.data()), u"10.0.0.1");
  EXPECT_EQ(data[0], std::byte{4});
  EXPECT_EQ(key.Enumerate(1, name, data).status, RegistryStatus::kMissing);
  EXPECT_FALSE(RegistryKey::Open(kKey, RegistryAccess::kRead).SetDword(u"x", 1))
      << "opened to be read";
}

TEST(EventLog, CarriesTheAccountOfTheProcess) {
  const auto user = CurrentUserIdentity();
  ASSERT_TRUE(user);
  char* text = nullptr;
  ASSERT_NE(ConvertSidToStringSidA(const_cast<std::byte*>(user->bytes.data()), &text), FALSE);
  EXPECT_TRUE(std::string_view(text).starts_with("S-1-5-")) << text;
  LocalFree(text);
  const EventLog log = EventLog::Register(u"TALVORN");
  ASSERT_TRUE(log.valid());
  log.Report(EventKind::kInformation, 0, 1000, &*user, u"text");
  EventLog().Report(EventKind::kInformation, 0, 1000, nullptr, u"nowhere");
}

TEST(Uuid, IsNewEachTimeAndWrittenInLowerCase) {
  const std::regex form("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}");
  const std::string first = NewUuidText();
  EXPECT_TRUE(std::regex_match(first, form)) << first;
  EXPECT_NE(NewUuidText(), first);
}

TEST(Directories, TheTemporaryOneEndsInItsSeparatorAndFitsOrIsNone) {
  const auto directory = TemporaryDirectory(1'024);
  ASSERT_TRUE(directory);
  EXPECT_TRUE(directory->ends_with('\\'));
  EXPECT_FALSE(TemporaryDirectory(directory->size()));
  EXPECT_TRUE(TemporaryDirectory(directory->size() + 1));
}

// The mailslot's own writer is the only one that it has at a time.
TEST(MailslotWriters, WaitForEachOtherForABoundedTime) {
  constexpr std::u16string_view kName = u"\\\\.\\mailslot\\talvorn_test";
  Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
  ASSERT_TRUE(mailslot.valid());
  FileHandle other(CreateFileW(L"\\\\.\\mailslot\\talvorn_test", GENERIC_WRITE, FILE_SHARE_READ,
                               nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(other.valid());
  EXPECT_TRUE(MailslotExists(kName));
  const std::array<std::byte, 3> message{};
  const MailslotWrite status = WriteMailslot(kName, message, 0);
  EXPECT_TRUE(status == MailslotWrite::kFull || status == MailslotWrite::kWritten);
  other.Close();
  EXPECT_EQ(WriteMailslot(kName, message, 0), MailslotWrite::kWritten);
}

}  // namespace
}  // namespace talvorn::platform
