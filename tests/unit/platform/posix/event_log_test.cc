#include "platform/event_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "platform/fault_injection.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/event_message.h"
#include "platform/posix/unix_address.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

using namespace std::string_literals;

class EventLogTest : public ::testing::Test {
 protected:
  // A journal at the end of `path`, which is below the scratch machine.
  void StartJournal(const std::filesystem::path& path) {
    std::filesystem::create_directories(path.parent_path());
    setenv("TALVORN_JOURNAL_SOCKET", path.c_str(), 1);
    journal_ = Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    // The folder first, since the whole path may be too long for an address.
    const Descriptor folder(open(path.parent_path().c_str(), O_PATH));
    const UnixAddress address(UnixAddress::OfDescriptor(folder.get()).path() + "/"s +
                              path.filename().string());
    ASSERT_EQ(bind(journal_.get(), address.get(), address.size()), 0);
  }
  [[nodiscard]] std::string NextEntry() const {
    std::string entry(4096, '\0');
    const ssize_t size = recv(journal_.get(), entry.data(), entry.size(), 0);
    entry.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return entry;
  }

  testing::ScratchMachine machine_;
  Descriptor journal_;
};

TEST_F(EventLogTest, ReportsReachTheJournalWithAllFields) {
  StartJournal(machine_.root() / "journal");
  const EventLog log = EventLog::Register(u"CAST REQUEST");
  const auto user = CurrentUserIdentity();
  ASSERT_TRUE(log.valid() && user);
  log.Report(EventKind::kWarning, 0, 1000, &*user, u"Service loop terminated \u00FC");
  log.Report(EventKind::kError, 3, 7, nullptr, u"a=b");
  log.Report(EventKind::kInformation, 0, 1000, nullptr, u"one\n\ttwo\n");

  const passwd* const account = getpwuid(geteuid());
  const std::string name = account ? account->pw_name : std::to_string(geteuid());
  EXPECT_EQ(NextEntry(),
            "MESSAGE=Service loop terminated \xC3\xBC\nPRIORITY=4\nSYSLOG_IDENTIFIER=CAST REQUEST\n"
            "TALVORN_EVENT_ID=1000\nTALVORN_CATEGORY=0\nTALVORN_USER=" +
                name + "\n");
  EXPECT_EQ(NextEntry(),
            "MESSAGE=a=b\nPRIORITY=3\nSYSLOG_IDENTIFIER=CAST REQUEST\nTALVORN_EVENT_ID=7\n"
            "TALVORN_CATEGORY=3\n");
  EXPECT_EQ(NextEntry(),
            "MESSAGE\n\x09\0\0\0\0\0\0\0one\n\ttwo\n\nPRIORITY=6\nSYSLOG_IDENTIFIER=CAST REQUEST\n"
            "TALVORN_EVENT_ID=1000\nTALVORN_CATEGORY=0\n"s);
}

TEST_F(EventLogTest, APathOfAnyLengthLeadsToTheJournal) {
  StartJournal(machine_.root() / std::string(90, 'a') / std::string(90, 'b') / "journal");
  EventLog::Register(u"TALVORN").Report(EventKind::kInformation, 0, 1, nullptr, u"text");
  EXPECT_TRUE(NextEntry().starts_with("MESSAGE=text\n"));
}

TEST_F(EventLogTest, AJournalThatDoesNotListenDelaysNobody) {
  const EventLog log = EventLog::Register(u"TALVORN");
  ASSERT_TRUE(log.valid());
  log.Report(EventKind::kInformation, 0, 1000, nullptr, u"lost");

  StartJournal(machine_.root() / "journal");
  for (int i = 0; i < 2'000; ++i) log.Report(EventKind::kInformation, 0, 1000, nullptr, u"flood");
  EXPECT_TRUE(NextEntry().starts_with("MESSAGE=flood\n"));
}

TEST_F(EventLogTest, ASourceThatCannotBeRegisteredLosesItsReports) {
  StartJournal(machine_.root() / "journal");
  ArmFault(Fault::kEventLogRegister, 1);
  const EventLog log = EventLog::Register(u"TALVORN");
  DisarmFaults();
  EXPECT_FALSE(log.valid());
  log.Report(EventKind::kError, 0, 1000, nullptr, u"lost");
  EXPECT_EQ(NextEntry(), "");
}

TEST(SyslogLine, IsOneLineWithATagOfOneWord) {
  std::tm time{};
  time.tm_mon = 10;
  time.tm_mday = 7;
  time.tm_hour = 15;
  time.tm_sec = 9;
  EXPECT_EQ(SyslogLine({EventKind::kInformation, 0, 1000, "CAST RESPONSE", "root",
                        "Device Serial: \t\t12\nDevice  Status:\x1B[31m\x7F\r\nend\n"},
                       time, 42),
            "<30>Nov  7 15:00:09 CAST_RESPONSE[42]: Device Serial: 12; Device Status: [31m; end");
}

}  // namespace
}  // namespace talvorn::platform
