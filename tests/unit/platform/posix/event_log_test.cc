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

TEST(EventLog, ReportsReachTheJournalWithAllFields) {
  const testing::ScratchMachine machine;
  const Descriptor journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  const UnixAddress address((machine.root() / "journal").string());
  ASSERT_EQ(bind(journal.get(), address.get(), address.size()), 0);
  const auto nextEntry = [&] {
    std::string entry(4096, '\0');
    const ssize_t size = recv(journal.get(), entry.data(), entry.size(), 0);
    entry.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return entry;
  };
  const EventLog log = EventLog::Register(u"CAST REQUEST");
  const auto user = CurrentUserIdentity();
  ASSERT_TRUE(log.valid() && user);
  log.Report(EventKind::kWarning, 3, 7, &*user, u"a=b \u00FC");
  log.Report(EventKind::kInformation, 0, 1000, nullptr, u"one\n\ttwo\n");

  const passwd* const account = getpwuid(geteuid());
  const std::string name = account ? account->pw_name : std::to_string(geteuid());
  EXPECT_EQ(nextEntry(),
            "MESSAGE=a=b \xC3\xBC\nPRIORITY=4\nSYSLOG_IDENTIFIER=CAST REQUEST\n"
            "TALVORN_EVENT_ID=7\nTALVORN_CATEGORY=3\nTALVORN_USER=" +
                name + "\n");
  EXPECT_EQ(nextEntry(),
            "MESSAGE\n\x09\0\0\0\0\0\0\0one\n\ttwo\n\nPRIORITY=6\nSYSLOG_IDENTIFIER=CAST REQUEST\n"
            "TALVORN_EVENT_ID=1000\nTALVORN_CATEGORY=0\n"s);
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
