#include "platform/event_log.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "platform/posix/descriptor.h"
#include "platform/posix/event_message.h"
#include "platform/posix/unix_address.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

using namespace std::string_literals;

class Journal {
 public:
  explicit Journal(const testing::ScratchMachine& machine)
      : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    const UnixAddress address((machine.root() / "journal").string());
    EXPECT_EQ(bind(socket_.get(), address.get(), address.size()), 0);
  }
  [[nodiscard]] std::string NextEntry() const {
    std::string entry(4096, '\0');
    const ssize_t size = recv(socket_.get(), entry.data(), entry.size(), 0);
    entry.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return entry;
  }

 private:
  Descriptor socket_;
};

TEST(EventLog, ReportsReachTheJournalWithAllFields) {
  const testing::ScratchMachine machine;
  const Journal journal(machine);
  const EventLog log = EventLog::Register(u"CAST REQUEST");
  const auto user = CurrentUserIdentity();
  ASSERT_TRUE(log.valid() && user);
  log.Report(EventKind::kWarning, 3, 7, &*user, u"a=b \u00FC");
  log.Report(EventKind::kInformation, 0, 1000, nullptr, u"one\n\ttwo\n");

  const passwd* const account = getpwuid(geteuid());
  const std::string name = account ? account->pw_name : std::to_string(geteuid());
  EXPECT_EQ(journal.NextEntry(),
            "MESSAGE=a=b \xC3\xBC\nPRIORITY=4\nSYSLOG_IDENTIFIER=CAST REQUEST\n"
            "TALVORN_EVENT_ID=7\nTALVORN_CATEGORY=3\nTALVORN_USER=" +
                name + "\n");
  EXPECT_EQ(journal.NextEntry(),
            "MESSAGE\n\x09\0\0\0\0\0\0\0one\n\ttwo\n\nPRIORITY=6\nSYSLOG_IDENTIFIER=CAST REQUEST\n"
            "TALVORN_EVENT_ID=1000\nTALVORN_CATEGORY=0\n"s);
}

TEST(EventLog, AJournalThatDoesNotReadDelaysNobody) {
  const testing::ScratchMachine machine;
  const EventLog log = EventLog::Register(u"TALVORN");
  log.Report(EventKind::kInformation, 0, 1000, nullptr, u"lost");
  const Journal journal(machine);
  for (int i = 0; i < 2'000; ++i) log.Report(EventKind::kInformation, 0, 1000, nullptr, u"flood");
  EXPECT_TRUE(journal.NextEntry().starts_with("MESSAGE=flood\n"));
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
