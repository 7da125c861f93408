// Named objects between processes and as files that others can get at.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/named_object.h"
#include "platform/posix/descriptor.h"
#include "testing/child_process.h"
#include "testing/scratch_machine.h"
#include "testing/things_in_the_way.h"
#include "testing/wait_until.h"

namespace talvorn::platform {
namespace {

using testing::ChildProcess;
using testing::ResultInChild;
using testing::WaitUntil;
using Status = NamedEvent::WaitResult::Status;
using Mode = NamedEvent::Mode;

constexpr std::u16string_view kName = u"Global\\TALVORN_TEST";
constexpr uid_t kNobody = 65534;
constexpr std::uint32_t kGenerousMs = 30'000;

class ObjectFiles : public ::testing::Test {
 protected:
  ObjectFiles() {
    chmod(machine_.root().c_str(), 0755);
    chmod(Folder().c_str(), 01777);
  }
  [[nodiscard]] std::filesystem::path Folder() const { return machine_.root() / "run/objects"; }
  [[nodiscard]] std::filesystem::path File() const { return Folder() / "TALVORN_TEST"; }

  testing::ScratchMachine machine_;
};

Status WaitFor(NamedEvent& event, WaitLimit limit) {
  NamedEvent* const events[] = {&event};
  return NamedEvent::WaitAny(events, nullptr, limit).status;
}

void HoldSetEvent() { (new NamedEvent(NamedEvent::Create(kName, Mode::kManualReset)))->Set(); }

bool SetLock(int fd, short type, off_t byte = 0) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_start = byte;
  lock.l_len = 1;
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

// A thread that waits for an event, through a hold of its own.
class Waiter {
 public:
  Waiter() {
    EXPECT_TRUE(WaitUntil([this] { return IsAsleep(); }));
  }
  ~Waiter() { thread_.join(); }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  [[nodiscard]] bool released() const { return released_; }
  [[nodiscard]] bool IsAsleep() const {
    std::string call;
    std::ifstream("/proc/self/task/" + std::to_string(id_) + "/syscall") >> call;
    return call == "271";  // ppoll
  }

 private:
  NamedEvent event_ = NamedEvent::Open(kName);
  std::atomic<pid_t> id_{0};
  std::atomic<bool> released_{false};
  std::thread thread_{[this] {
    id_ = gettid();
    released_ = WaitFor(event_, kGenerousMs) == Status::kEvent;
  }};
};

TEST_F(ObjectFiles, APulseReleasesThoseWhoWaitAndNobodyLater) {
  NamedEvent event = NamedEvent::Create(kName, Mode::kManualReset);
  {
    const Waiter first;
    const Waiter second;
    EXPECT_EQ(ResultInChild([] { return NamedEvent::Open(kName).Pulse() ? 0 : 1; }), 0);
    EXPECT_TRUE(WaitUntil([&] { return first.released() && second.released(); }));
  }
  EXPECT_EQ(WaitFor(event, 0), Status::kTimeout);
}

TEST_F(ObjectFiles, APulseOfAnAutoResetEventReleasesOne) {
  NamedEvent event = NamedEvent::Create(kName, Mode::kAutoReset);
  const Waiter a;
  const Waiter b;
  const auto released = [&] { return int{a.released()} + int{b.released()}; };
  const auto asleep = [&] { return int{a.IsAsleep()} + int{b.IsAsleep()}; };
  EXPECT_TRUE(event.Pulse());
  EXPECT_TRUE(WaitUntil([&] { return released() == 1 && asleep() == 1; }));
  EXPECT_TRUE(event.Set() && event.Reset()) << "who waits is released all the same";
  EXPECT_TRUE(WaitUntil([&] { return released() == 2; }));
}

TEST_F(ObjectFiles, AKilledProcessLetsGo) {
  ChildProcess other(HoldSetEvent);
  {
    NamedEvent event = NamedEvent::Open(kName);
    EXPECT_EQ(WaitFor(event, 0), Status::kEvent);
    other.Kill();
    EXPECT_TRUE(NamedEvent::Open(kName).valid()) << "there is another holder";
  }
  EXPECT_FALSE(NamedEvent::Open(kName).valid());

  ChildProcess(HoldSetEvent).Kill();
  EXPECT_TRUE(std::filesystem::exists(File()));
  EXPECT_FALSE(NamedEvent::Open(kName).valid());
  EXPECT_TRUE(std::filesystem::is_empty(Folder())) << "a leftover is cleared away";

  ChildProcess([] { new NamedMutex(NamedMutex::Create(kName)); }).Kill();
  NamedEvent fresh = NamedEvent::Create(kName, Mode::kAutoReset);
  EXPECT_TRUE(fresh.valid()) << "or made anew, as something else";
  EXPECT_EQ(WaitFor(fresh, 0), Status::kTimeout);
}

TEST_F(ObjectFiles, OtherAccountsShareObjectsAndLeftovers) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const auto doneByNobody = [](bool (*procedure)()) {
    return ResultInChild([&] {
             return setresuid(kNobody, kNobody, kNobody) == 0 && procedure() ? 0 : 1;
           }) == 0;
  };
  const mode_t before = umask(077);
  NamedEvent event = NamedEvent::Create(kName, Mode::kManualReset);
  EXPECT_TRUE(doneByNobody([] { return NamedEvent::Open(kName).Set(); }));
  EXPECT_EQ(WaitFor(event, 0), Status::kEvent);
  event.Close();

  // A leftover that the folder does not let others remove.
  ChildProcess(HoldSetEvent).Kill();
  EXPECT_TRUE(doneByNobody([] {
    if (NamedEvent::Open(kName).valid()) return false;
    NamedEvent made = NamedEvent::Create(kName, Mode::kAutoReset);
    return WaitFor(made, 0) == Status::kTimeout;
  }));
  umask(before);
}

TEST_F(ObjectFiles, NamesBecomePlainFileNames) {
  const std::pair<std::u16string, std::string> names[] = {
      {u"global\\a", "a"},
      {u"Local\\Global\\b", "Global%5Cb"},
      {u"..", "%2E."},
      {u"a/../b c%\n\u00FC", "a%2F..%2Fb%20c%25%0A%C3%BC"},
  };
  for (const auto& [name, file] : names) {
    const NamedMutex mutex = NamedMutex::Create(name);
    EXPECT_TRUE(mutex.valid() && std::filesystem::is_regular_file(Folder() / file)) << file;
  }
  for (const std::u16string& name : {std::u16string(), std::u16string(u"Global\\"),
                                     std::u16string(256, u'x'), std::u16string(86, u'/')}) {
    EXPECT_FALSE(NamedMutex::Create(name).valid());
  }
}

TEST_F(ObjectFiles, WhatOthersPutInPlaceOfAnObjectIsLeftAlone) {
  const NamedEvent other = NamedEvent::Create(u"other", Mode::kManualReset);
  for (const auto& thing : testing::ThingsInTheWay(File(), "other")) {
    SCOPED_TRACE(thing.what);
    thing.Make();
    EXPECT_FALSE(NamedEvent::Open(kName).valid());
    EXPECT_FALSE(NamedEvent::Create(kName, Mode::kManualReset).valid());
    EXPECT_TRUE(std::filesystem::remove(File())) << "still there";
  }
  EXPECT_TRUE(NamedEvent::Open(u"other").valid());
}

TEST_F(ObjectFiles, ALockedOrDamagedFileHoldsNobodyUp) {
  const std::string foreign = {'x', 'x', 'x', 'x', 3, 0, 0, 0};
  for (const std::string& content : {std::string(), foreign, std::string(100, 'x')}) {
    std::ofstream(File(), std::ios::trunc) << content;
    const Descriptor holder(open(File().c_str(), O_RDWR));
    for (const short lock : {short{F_RDLCK}, short{F_WRLCK}}) {
      ASSERT_TRUE(SetLock(holder.get(), lock));
      EXPECT_FALSE(NamedEvent::Open(kName).valid());
      EXPECT_FALSE(NamedEvent::Create(kName, Mode::kManualReset).valid());
    }
    ASSERT_TRUE(SetLock(holder.get(), F_UNLCK));
    EXPECT_TRUE(NamedEvent::Create(kName, Mode::kManualReset).valid()) << "nobody holds it";
  }

  NamedEvent event = NamedEvent::Create(kName, Mode::kAutoReset);
  const Descriptor hostile(open(File().c_str(), O_RDWR));
  ASSERT_EQ(ftruncate(hostile.get(), 0), 0);
  EXPECT_FALSE(NamedEvent::Open(kName).valid());
  EXPECT_NE(WaitFor(event, 0), Status::kFailed);
  EXPECT_TRUE(event.Pulse());
  EXPECT_TRUE(NamedEvent::Open(kName).valid()) << "mended";
  // Somebody who keeps the waiters' lock does not keep a signal from them.
  ASSERT_TRUE(SetLock(hostile.get(), F_WRLCK, 1));
  EXPECT_TRUE(event.Set());
  EXPECT_EQ(WaitFor(event, 0), Status::kEvent);
}

TEST_F(ObjectFiles, ManyThatComeAndGoLeaveNothingBehind) {
  std::atomic<int> made{0};
  const auto comeAndGo = [&made] {
    for (int i = 0; i < 2'000; ++i) {
      NamedEvent event = NamedEvent::Create(kName, Mode::kManualReset);
      NamedEvent again = NamedEvent::Open(kName);
      made += event.valid() && again.valid() && again.Pulse() ? 1 : 0;
    }
  };
  ChildProcess other([&] {
    new std::thread([&] {
      for (;;) comeAndGo();
    });
  });
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(comeAndGo);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(made, 8'000) << "a name is never lost between them";
  other.Kill();
  (void)NamedEvent::Open(kName);  // clears away what the killed one left
  EXPECT_TRUE(std::filesystem::is_empty(Folder()));
}

}  // namespace
}  // namespace talvorn::platform
