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

namespace talvorn::platform {
namespace {

using testing::ChildProcess;
using testing::DoneByNobody;
using Status = NamedEvent::WaitResult::Status;

constexpr std::u16string_view kName = u"Global\\TALVORN_TEST";

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

Status TestEvent(NamedEvent& event) {
  NamedEvent* const events[] = {&event};
  return NamedEvent::WaitAny(events, nullptr, 0).status;
}

void HoldSetEvent() { (new NamedEvent(NamedEvent::Create(kName)))->Set(); }

bool SetLock(int fd, short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_len = 1;
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

TEST_F(ObjectFiles, WhatAKilledProcessLeftIsNoObject) {
  ChildProcess(HoldSetEvent).Kill();
  EXPECT_TRUE(std::filesystem::exists(File()));
  EXPECT_FALSE(NamedEvent::Open(kName).valid());
  EXPECT_TRUE(std::filesystem::is_empty(Folder())) << "a leftover is cleared away";

  ChildProcess([] { new NamedMutex(NamedMutex::Create(kName)); }).Kill();
  NamedEvent fresh = NamedEvent::Create(kName);
  EXPECT_TRUE(fresh.valid()) << "or made anew, as something else";
  EXPECT_EQ(TestEvent(fresh), Status::kTimeout);
}

TEST_F(ObjectFiles, OtherAccountsShareObjectsAndLeftovers) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const mode_t before = umask(077);
  NamedEvent event = NamedEvent::Create(kName);
  EXPECT_TRUE(DoneByNobody([] { return NamedEvent::Open(kName).Set(); }));
  EXPECT_EQ(TestEvent(event), Status::kEvent);
  event.Close();

  // A leftover that the folder does not let others remove.
  ChildProcess(HoldSetEvent).Kill();
  EXPECT_TRUE(DoneByNobody([] {
    if (NamedEvent::Open(kName).valid()) return false;
    NamedEvent made = NamedEvent::Create(kName);
    return TestEvent(made) == Status::kTimeout;
  }));
  umask(before);
}

TEST_F(ObjectFiles, WhatOthersPutInPlaceOfAnObjectIsLeftAlone) {
  const NamedEvent other = NamedEvent::Create(u"other");
  for (const auto& thing : testing::ThingsInTheWay(File(), "other")) {
    SCOPED_TRACE(thing.what);
    thing.Make();
    EXPECT_FALSE(NamedEvent::Open(kName).valid());
    EXPECT_FALSE(NamedEvent::Create(kName).valid());
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
      EXPECT_FALSE(NamedEvent::Create(kName).valid());
    }
    ASSERT_TRUE(SetLock(holder.get(), F_UNLCK));
    EXPECT_TRUE(NamedEvent::Create(kName).valid()) << "nobody holds it";
  }

  NamedEvent event = NamedEvent::Create(kName);
  const Descriptor hostile(open(File().c_str(), O_RDWR));
  ASSERT_EQ(ftruncate(hostile.get(), 0), 0);
  EXPECT_FALSE(NamedEvent::Open(kName).valid());
  EXPECT_NE(TestEvent(event), Status::kFailed);
  EXPECT_TRUE(event.Pulse());
  EXPECT_TRUE(NamedEvent::Open(kName).valid()) << "mended";
}

// A client that cannot hold the mutex for somebody's lock still counts as one.
TEST_F(ObjectFiles, AMutexWhoseFileSomebodyLocksExistsAndIsNotWaitedForAgainAndAgain) {
  EXPECT_FALSE(NamedMutex::Open(kName).valid());
  for (const short lock : {short{F_RDLCK}, short{F_WRLCK}}) {
    std::ofstream(File(), std::ios::trunc) << "anything";
    const Descriptor hostile(open(File().c_str(), O_RDWR));
    ASSERT_TRUE(SetLock(hostile.get(), lock));
    EXPECT_FALSE(NamedMutex::Create(kName).valid());
    EXPECT_TRUE(NamedMutex::Open(kName).valid());
    const std::uint64_t start = MonotonicMs();
    for (int i = 0; i < 100; ++i) EXPECT_FALSE(NamedMutex::Create(kName).valid());
    EXPECT_LT(MonotonicMs() - start, 4'000u) << "2 ms each";
    ASSERT_TRUE(SetLock(hostile.get(), F_UNLCK));
    EXPECT_FALSE(NamedMutex::Open(kName).valid()) << "let go";
    EXPECT_TRUE(NamedMutex::Create(kName).valid());
  }
}

TEST_F(ObjectFiles, ManyThatComeAndGoLeaveNothingBehind) {
  std::atomic<int> found{0};
  const auto comeAndGo = [&found] {
    for (int i = 0; i < 2'000; ++i) {
      NamedEvent event;
      // One that was kept from running in the middle of it keeps the others waiting.
      while (!event.valid()) event = NamedEvent::Create(kName);
      found += NamedEvent::Open(kName).Pulse() ? 1 : 0;
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
  EXPECT_EQ(found, 8'000) << "a name is never lost between them";
  other.Kill();
  (void)NamedEvent::Open(kName);  // clears away what the killed one left
  EXPECT_TRUE(std::filesystem::is_empty(Folder()));
}

}  // namespace
}  // namespace talvorn::platform
