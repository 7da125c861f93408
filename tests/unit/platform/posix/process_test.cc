// What concerns the process as a whole; each case in a child process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <string>

#include "platform/clock.h"
#include "platform/console.h"
#include "platform/entry.h"
#include "platform/event.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/process_start.h"
#include "platform/socket.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kGenerousMs = 30'000;

// Wait status of a child that runs `procedure` and exits with what it returns.
int StatusOfChild(const std::function<int()>& procedure) {
  const pid_t child = fork();
  if (child == 0) _exit(procedure());
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

int ExitCodeOfChild(const std::function<int()>& procedure) {
  const int status = StatusOfChild(procedure);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

bool Signalled(const Waitable& waitable, std::uint32_t limit) {
  const Waitable* const waited = &waitable;
  return WaitForAny({&waited, 1}, limit) == WaitStatus::kSignalled;
}

TEST(TerminationRequest, IsQuietUntilASignalAndThenStays) {
  EXPECT_FALSE(TerminationRequested());
  EXPECT_NE(TerminationRequest().waitHandle(), kNoWaitHandle);
  EXPECT_FALSE(Signalled(TerminationRequest(), 0));
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    EXPECT_EQ(ExitCodeOfChild([&] {
                signal(number, SIG_DFL);
                if (!WatchTerminationSignals() || TerminationRequested()) return 1;
                Thread thread = Thread::Start("waiter", [] {
                  if (!Signalled(TerminationRequest(), kGenerousMs)) _exit(2);
                  return 0u;
                });
                kill(getpid(), number);
                thread.Join();
                // Somebody who is impatient does not make it less orderly.
                kill(getpid(), number);
                kill(getpid(), SIGINT);
                return TerminationRequested() && Signalled(TerminationRequest(), 0) ? 0 : 3;
              }),
              0)
        << number;
  }
}

TEST(TerminationRequest, IgnoresTheHangupThatNohupIgnores) {
  EXPECT_EQ(ExitCodeOfChild([] {
              signal(SIGHUP, SIG_IGN);
              signal(SIGINT, SIG_IGN);  // as shells do for what runs in the background
              if (!WatchTerminationSignals()) return 1;
              kill(getpid(), SIGHUP);
              if (TerminationRequested()) return 2;
              kill(getpid(), SIGINT);
              return TerminationRequested() ? 0 : 3;
            }),
            0);
}

TEST(InterruptRequest, TakesOverOnlyForAToolThatLooks) {
  EXPECT_EQ(ExitCodeOfChild([] {
              signal(SIGINT, SIG_DFL);
              kill(getpid(), SIGINT);
              return 0;
            }),
            -SIGINT);
  EXPECT_EQ(ExitCodeOfChild([] {
              const Waitable& request = InterruptRequest();
              if (Signalled(request, 0)) return 1;
              kill(getpid(), SIGINT);
              return Signalled(request, kGenerousMs) && Signalled(InterruptRequest(), 0) ? 0 : 2;
            }),
            0);
}

TEST(PrepareProcess, KeepsTheStandardDescriptorsTakenAndRaisesTheLimit) {
  EXPECT_EQ(ExitCodeOfChild([] {
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

TEST(WriteOutput, TellsAClosedPipeAndAFullDisk) {
  EXPECT_EQ(ExitCodeOfChild([] {
              int pipeEnds[2];
              if (pipe(pipeEnds) != 0 || !PrepareProcess()) return 1;
              dup2(pipeEnds[1], STDOUT_FILENO);
              // More than a pipe holds, to a reader that is slow to start.
              fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);
              const std::string text(1 << 20, 'x');
              Thread reader = Thread::Start("reader", [&] {
                std::array<char, 4096> buffer;
                std::size_t left = text.size();
                while (left > 0) {
                  const ssize_t size = read(pipeEnds[0], buffer.data(), buffer.size());
                  if (size <= 0) _exit(2);
                  left -= static_cast<std::size_t>(size);
                }
                return 0u;
              });
              if (!WriteOutput(text) || OutputIsTerminal()) return 3;
              reader.Join();
              close(pipeEnds[0]);
              if (WriteOutput("x")) return 4;
              dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
              return WriteOutput("x") ? 5 : 0;
            }),
            0);
}

TEST(Obstacle, OfAPortInUseIsToldOnceWithWhatToDo) {
  int pipeEnds[2];
  ASSERT_EQ(pipe(pipeEnds), 0);
  EXPECT_EQ(ExitCodeOfChild([&] {
              dup2(pipeEnds[1], STDERR_FILENO);
              Socket exclusive = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
              for (std::uint16_t port = 42'417; port < 42'517; ++port) {
                const SocketAddress address = SocketAddress::Ipv4(0x0100007F, port);
                if (!exclusive.Bind(address)) continue;
                for (int i = 0; i < 3; ++i) {
                  Socket second = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
                  if (!second.SetReuseAddress() || second.Bind(address)) return 1;
                }
                return 0;
              }
              return 2;
            }),
            0);
  close(pipeEnds[1]);
  std::string told(4096, '\0');
  told.resize(
      static_cast<std::size_t>(std::max<ssize_t>(read(pipeEnds[0], told.data(), told.size()), 0)));
  close(pipeEnds[0]);
  const std::string start = "another program uses UDP port 42";
  EXPECT_NE(told.find(start), std::string::npos) << told;
  EXPECT_EQ(told.find(start), told.rfind(start)) << told;
  EXPECT_NE(told.find("end it"), std::string::npos) << told;
  EXPECT_EQ(told.back(), '\n');
}

TEST(LocalTimeDeathTest, IsTheTimeOfTheZone) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";  // a process that has read no zone
  const auto check = [](const char* zone, std::int64_t seconds) {
    setenv("TZ", zone, 1);
    const auto before = static_cast<std::int64_t>(SystemClock().SystemTime());
    const auto local = static_cast<std::int64_t>(SystemClock().LocalTime());
    const auto again = static_cast<std::int64_t>(SystemClock().LocalTime());
    const auto after = static_cast<std::int64_t>(SystemClock().SystemTime());
    const std::int64_t offset = seconds * static_cast<std::int64_t>(kFileTimePerSecond);
    _exit(local >= before + offset && again >= local && again <= after + offset ? 0 : 1);
  };
  EXPECT_EXIT(check("WEST3:30", -12'600), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(check("EAST-5:45", 20'700), testing::ExitedWithCode(0), "");
}

TEST(Handles, MoveAndCloseLeakNoDescriptor) {
  const auto lowestFree = [] { return Descriptor(open("/dev/null", O_RDONLY)).get(); };
  const int before = lowestFree();
  for (int i = 0; i < 3; ++i) {
    Event event = Event::Create(Event::Mode::kAutoReset);
    event = Event::Create(Event::Mode::kManualReset);
    Socket socket = Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram);
    socket = Socket::Create(AddressFamily::kIpv6, SocketType::kStream);
    Descriptor descriptor(open("/dev/null", O_RDONLY));
    descriptor = Descriptor(open("/dev/null", O_RDONLY));
    SystemClock().WaitUntil(SystemClock().SystemTime() + 1, event);
  }
  EXPECT_EQ(lowestFree(), before);
}

}  // namespace
}  // namespace talvorn::platform
