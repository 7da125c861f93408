#include "platform/posix/forms/settings_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <iomanip>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/posix/descriptor.h"
#include "platform/settings_store.h"
#include "platform/text_encoding.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

using namespace std::string_literals;

std::string Utf16(std::u16string_view text) {
  std::string bytes = "\xFF\xFE";
  for (const char16_t unit : text) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  return bytes;
}

// The values of a key as "name:type:data" in hexadecimal digits, blanks between them.
std::string Listing(const SettingsFile& file, std::string_view path) {
  std::ostringstream listing;
  for (const Setting* const value : file.ValuesOf(path)) {
    if (listing.tellp() > 0) listing << ' ';
    listing << value->name << ':' << std::dec << static_cast<std::uint32_t>(value->type) << ':'
            << std::hex;
    for (const unsigned char byte : value->data)
      listing << std::setw(2) << std::setfill('0') << unsigned{byte};
  }
  return listing.str();
}

TEST(SettingsFile, ReadsWhatTheFormatAllowsAndPassesOverTheRest) {
  const struct {
    std::string_view lines;
    std::string_view listing;
  } cases[] = {
      {"\"a\"=dword:00001388", "a:4:88130000"},
      {" \"a\" = DWORD: 1f ; comment", "a:4:1f000000"},
      {"\"a\"=dword:123456789\n\"b\"=dword:\n\"c\"=dword:12x\n\"d\"=dword:1 2", ""},
      {R"("q\"\\"="x\\y\"\z")", R"(q"\:1:78005c0079002200)"
                                "5c007a000000"},
      {"\"a\"=\"open\n\"b\"=\"x\"y\n\"c=1\nd=dword:1\n\"\"=dword:1", ""},
      {"\"a\"=\"\xC3\xBC\xFF\"", "a:1:fc00fdff0000"},
      {"@=\"x\"", ":1:78000000"},
      {"\"a\"=hex:01, 2,\\\n  ff", "a:3:0102ff"},
      {"\"a\"=hex(2):41,00,\\ ; note\r\n00,00", "a:2:41000000"},
      {"\"a\"=hex(b):01\\", "a:11:01"},
      {"\"a\"=hex:\n\"b\"=hex(4):01,", "a:3: b:4:01"},
      {"\"a\"=hex:01 02\n\"b\"=hex:100\n\"c\"=hex(:01\n\"d\"=hex:0g\n\"e\"=qword:1", ""},
      {"\"a\"=hex:01,\\x\n\"b\"=dword:2", "b:4:02000000"},
      {"\"a\"=dword:1\n\"A\"=dword:2\n\"b\"=dword:3\n\"B\"=-\n; \"a\"=dword:9", "a:4:02000000"},
      {"\"\xC3\x9C\"=dword:0\n\"\xC3\xBC\"=dword:1", "\xC3\x9C:4:01000000"},
      {"\"a\"=dword:1\n[HKEY_CURRENT_USER\\K]\n\"b\"=dword:1\n[broken\n\"c\"=dword:1\n"
       "[hkey_local_machine\\k\\] ; again\n\"d\"=dword:1",
       "a:4:01000000 d:4:01000000"},
      {"\"a\"=dword:1\n[-HKEY_LOCAL_MACHINE\\K]\n\"b\"=dword:1\n[HKEY_LOCAL_MACHINE\\K]", ""},
  };
  for (const auto& c : cases) {
    const std::string text = std::string("[HKEY_LOCAL_MACHINE\\K]\n").append(c.lines);
    for (const std::string& bytes : {text, std::string("\xEF\xBB\xBF").append(text).append("\n")}) {
      const SettingsFile file(bytes);
      EXPECT_TRUE(file.HasKey("k")) << c.lines;
      EXPECT_EQ(Listing(file, "k"), c.listing) << c.lines;
    }
    if (text.find('\xFF') == std::string::npos) {
      EXPECT_EQ(Listing(SettingsFile(Utf16(Utf8ToWide(text))), "K"), c.listing) << c.lines;
    }
  }
}

TEST(SettingsFile, ChangesNothingButTheValue) {
  // All of them behind "[HKEY_LOCAL_MACHINE\K]" in its own line.
  const struct {
    std::string before;
    std::string name;
    std::string after;
  } cases[] = {
      // Replaced in its line, comment and spelling kept.
      {"\n  \"A\" =  dword:0 ; why\n\"b\"=\"x\"\n\n[other]\n", "a",
       "\n  \"A\" =  dword:00000001 ; why\n\"b\"=\"x\"\n\n[other]\n"},
      {"\r\n\"a\"=hex(4):00,\\\r\n  00,00,00 ;c\r\n\"b\"=-\r\n", "A",
       "\r\n\"a\"=dword:00000001 ;c\r\n\"b\"=-\r\n"},
      {"\n\"a\"=hex:00,\\", "a", "\n\"a\"=dword:00000001"},
      // The definition that counts.
      {"\n\"a\"=dword:5\n[HKEY_LOCAL_MACHINE\\k]\n\"a\"=\"\\\\\"", "a",
       "\n\"a\"=dword:5\n[HKEY_LOCAL_MACHINE\\k]\n\"a\"=dword:00000001"},
      {"\n\"a\"=dword:1\n\"a\"=-\n", "a", "\n\"a\"=dword:1\n\"a\"=dword:00000001\n"},
      // Added at the beginning of the section, with the file's line ends.
      {"\r\n\"b\"=dword:0\r\n\r\n; on x\r\n[x]\r\n", "A",
       "\r\n\"A\"=dword:00000001\r\n\"b\"=dword:0\r\n\r\n; on x\r\n[x]\r\n"},
      {"\n\"b\"=hex:00,\\\n", "A", "\n\"A\"=dword:00000001\n\"b\"=hex:00,\\\n"},
      {"", "A", "\n\"A\"=dword:00000001\n"},
      {"\n", "a\"\\", "\n\"a\\\"\\\\\"=dword:00000001\n"},
  };
  const auto withOne = [](const std::string& bytes, const std::string& name) {
    return SettingsFile(bytes).WithNumbers("K", {&name, 1}, 1);
  };
  const std::string key = "[HKEY_LOCAL_MACHINE\\k]";
  for (const auto& c : cases) {
    EXPECT_EQ(withOne(key + c.before, c.name), key + c.after);
    EXPECT_EQ(withOne(Utf16(Utf8ToWide(key + c.before)), c.name), Utf16(Utf8ToWide(key + c.after)));
  }
  // Characters of several bytes and bytes that are no characters before the value.
  EXPECT_EQ(withOne(key + "\n\"\xF0\x9F\x98\x80\xC3\xBC\xFF\"=dword:7 ;\xFE\n",
                    "\xF0\x9F\x98\x80\xC3\xBC\xEF\xBF\xBD"),
            key + "\n\"\xF0\x9F\x98\x80\xC3\xBC\xFF\"=dword:00000001 ;\xFE\n");
  EXPECT_EQ(withOne("", "a"), std::nullopt);

  // Several at once, in any order, new ones among them.
  const std::string names[] = {"n", "C", "a", "m"};
  EXPECT_EQ(SettingsFile("[HKEY_LOCAL_MACHINE\\k]\n\"a\"=\"x\"\n\"b\"=hex:1\n\"c\"=dword:0 ;c")
                .WithNumbers("K", names, 1),
            "[HKEY_LOCAL_MACHINE\\k]\n\"n\"=dword:00000001\n\"m\"=dword:00000001\n"
            "\"a\"=dword:00000001\n\"b\"=hex:1\n\"c\"=dword:00000001 ;c");
}

class SettingsStore : public ::testing::Test {
 protected:
  // The number in the key; none when the key cannot be opened.
  static std::optional<std::uint32_t> Number(std::u16string_view name) {
    return SettingsKey::Open(u"Software\\K", SettingsAccess::kRead).Number(name);
  }

  testing::ScratchMachine machine_;
};

TEST_F(SettingsStore, WritingReplacesTheFileAndKeepsItsModeAndName) {
  const std::filesystem::path target = machine_.root() / "real.reg";
  std::filesystem::create_symlink("real.reg", machine_.registry());
  std::ofstream(target) << "[HKEY_LOCAL_MACHINE\\Software\\K]\n\"10.0.0.1\"=dword:00000000\n";
  chmod(target.c_str(), 0640);
  struct stat before {};
  stat(target.c_str(), &before);
  const Descriptor reader(open(target.c_str(), O_RDONLY));

  SettingsKey key = SettingsKey::Open(u"SOFTWARE\\K", SettingsAccess::kReadWrite);
  EXPECT_TRUE(key.SetNumber(u"10.0.0.1", 1) && key.SetNumber(u"10.0.0.2", 2));
  EXPECT_FALSE(key.SetNumber(u"a\nb", 2));

  struct stat after {};
  stat(target.c_str(), &after);
  std::stringstream content;
  content << std::ifstream(target).rdbuf();
  EXPECT_EQ(content.str(),
            "[HKEY_LOCAL_MACHINE\\Software\\K]\n\"10.0.0.2\"=dword:00000002\n"
            "\"10.0.0.1\"=dword:00000001\n");
  EXPECT_TRUE(std::filesystem::is_symlink(machine_.registry()));
  EXPECT_EQ(after.st_mode & 07777, 0640u);
  EXPECT_NE(after.st_ino, before.st_ino) << "whoever reads the old file reads it to its end";
}

TEST_F(SettingsStore, WritesOfSeveralProgramsAreAllKept) {
  std::vector<std::thread> writers;
  SettingsKey made = SettingsKey::Create(u"Software\\K");
  for (int writer = 0; writer < 3; ++writer) {
    writers.emplace_back([writer] {
      SettingsKey key = SettingsKey::Open(u"Software\\K", SettingsAccess::kReadWrite);
      for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(key.SetNumber(Utf8ToWide(std::to_string(writer * 4 + i)), 1));
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  for (int i = 0; i < 12; ++i) EXPECT_EQ(Number(Utf8ToWide(std::to_string(i))), 1u) << i;

  // Somebody who keeps the lock makes the write fail, not wait for ever.
  const Descriptor lock(open((machine_.registry().string() + ".lock").c_str(), O_RDWR));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  EXPECT_FALSE(made.SetNumber(u"0", 4));
  EXPECT_EQ(Number(u"0"), 1u);
  EXPECT_EQ(std::ranges::distance(std::filesystem::directory_iterator(machine_.root())), 3)
      << "run, the file and its lock, but no temporary ones";
}

}  // namespace
}  // namespace talvorn::platform
