// What concerns the process as a whole; each case in a child process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <string_view>

#include "platform/console.h"
#include "platform/debug_output.h"
#include "platform/posix/process_start.h"
#include "platform/process.h"
#include "platform/socket.h"
#include "platform/waitable.h"
#include "testing/child_process.h"

namespace talvorn::platform {
namespace {

using testing::ResultInChild;

TEST(TerminationRequest, IgnoresTheHangupThatNohupIgnores) {
  EXPECT_EQ(ResultInChild([] {
              signal(SIGHUP, SIG_IGN);
              if (!WatchTerminationSignals()) return 1;
              kill(getpid(), SIGHUP);
              if (TerminationRequested()) return 2;
              kill(getpid(), SIGTERM);
              const Waitable* const waited = &TerminationRequest();
              return WaitForAny({&waited, 1}, 30'000) == WaitStatus::kSignalled ? 0 : 3;
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
