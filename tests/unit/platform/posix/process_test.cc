// What concerns the process as a whole; each case in a child process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "platform/console.h"
#include "platform/debug_output.h"
#include "platform/obstacle.h"
#include "platform/posix/process_start.h"
#include "platform/process.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "testing/child_process.h"

namespace talvorn::platform {
namespace {

using testing::ResultInChild;

bool Signalled(const Waitable& waitable, std::uint32_t limit) {
  const Waitable* const waited = &waitable;
  return WaitForAny({&waited, 1}, limit) == WaitStatus::kSignalled;
}

TEST(TerminationRequest, WakesAWaiterAndIgnoresTheHangupThatNohupIgnores) {
  EXPECT_EQ(ResultInChild([] {
              signal(SIGHUP, SIG_IGN);
              signal(SIGINT, SIG_IGN);  // as shells do for what runs in the background
              if (!WatchTerminationSignals()) return 1;
              kill(getpid(), SIGHUP);
              if (TerminationRequested() || Signalled(TerminationRequest(), 0)) return 2;
              Thread thread = Thread::Start("waiter", [] {
                if (!Signalled(TerminationRequest(), 30'000)) _exit(3);
                return 0u;
              });
              // Somebody who is impatient does not make it less orderly.
              for (const int number : {SIGINT, SIGTERM, SIGINT}) kill(getpid(), number);
              thread.Join();
              return TerminationRequested() && Signalled(TerminationRequest(), 0) ? 0 : 4;
            }),
            0);
}

TEST(PrepareProcess, KeepsTheStandardDescriptorsTakenAndRaisesTheLimit) {
  EXPECT_EQ(ResultInChild([] {
              rlimit limit{};
              getrlimit(RLIMIT_NOFILE, &limit);
              limit.rlim_cur = 64;
              setrlimit(RLIMIT_NOFILE, &limit);
              for (int fd = 0; fd <= 2; ++fd) close(fd);
              if (!PrepareProcess()) return 1;
              const Socket socket = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
              if (socket.waitHandle() <= 2) return 2;
              // Lost output is noticed.
              if (WriteOutput("x") || WriteError("x")) return 3;
              getrlimit(RLIMIT_NOFILE, &limit);
              return limit.rlim_cur == limit.rlim_max ? 0 : 4;
            }),
            0);
}

TEST(ReportObstacle, NeitherWaitsForAFullPipeNorMakesItNonBlockingNorCountsAsSaid) {
  EXPECT_EQ(ResultInChild([] {
              int ends[2];
              if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0) return 1;
              fcntl(ends[1], F_SETFL, O_NONBLOCK);
              const std::string block(4'096, 'x');
              while (write(ends[1], block.data(), block.size()) > 0) {
              }
              fcntl(ends[1], F_SETFL, 0);
              alarm(30);  // ends a write that waits
              ReportObstacle("nobody reads this.");
              if ((fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK) != 0) return 2;
              fcntl(ends[0], F_SETFL, O_NONBLOCK);
              const auto waiting = [&] {
                std::string text(1 << 20, '\0');
                text.resize(static_cast<std::size_t>(
                    std::max<ssize_t>(0, read(ends[0], text.data(), text.size()))));
                return text;
              };
              if (waiting().find("nobody") != std::string::npos) return 3;
              ReportObstacle("nobody reads this.");
              if (!waiting().ends_with(": nobody reads this.\n")) return 4;
              ReportObstacle("nobody reads this.");
              return waiting().empty() ? 0 : 5;
            }),
            0);
}

TEST(DebugOutput, CommandsNoTerminal) {
  EXPECT_EQ(ResultInChild([] {
              const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
              if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0) return 1;
              const int side = open(ptsname(terminal), O_RDWR | O_NOCTTY);
              if (side < 0 || dup2(side, STDERR_FILENO) < 0) return 2;
              alarm(30);
              DebugOutputA("from\ta device: \x1b[2J\xc2\x9b\u202e\n");
              std::array<char, 100> shown{};
              if (read(terminal, shown.data(), shown.size()) <= 0) return 3;
              const std::string_view line = shown.data();
              return line == "from    a device: \\x1b[2J\\x9b\\u202e\r\n" ||
                             line == "from\ta device: \\x1b[2J\\x9b\\u202e\r\n"
                         ? 0
                         : 4;
            }),
            0);
}

}  // namespace
}  // namespace talvorn::platform
