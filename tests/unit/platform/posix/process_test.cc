// What concerns the process as a whole; each case in a child process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "platform/console.h"
#include "platform/entry.h"
#include "platform/posix/obstacle.h"
#include "platform/posix/process_start.h"
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

TEST(ReportObstacle, NeitherWaitsForAFullPipeNorMakesItNonBlockingForOthers) {
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
              return (fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK) == 0 ? 0 : 2;
            }),
            0);
}

}  // namespace
}  // namespace talvorn::platform
