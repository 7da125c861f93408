// Mailslots as files that others can get at, and messages made by somebody hostile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/mailslot.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/runtime_directory.h"
#include "platform/posix/unix_address.h"
#include "testing/child_process.h"
#include "testing/scratch_machine.h"
#include "testing/things_in_the_way.h"

namespace talvorn::platform {
namespace {

using testing::ChildProcess;

constexpr std::u16string_view kName = u"\\\\.\\mailslot\\Talvorn_Test";

class MailslotFiles : public ::testing::Test {
 protected:
  [[nodiscard]] std::filesystem::path Folder() const { return machine_.root() / "run/mailslot"; }
  [[nodiscard]] std::filesystem::path File() const { return Folder() / "talvorn_test"; }
  static void LeaveBehind() {
    ChildProcess([] { new Mailslot(Mailslot::Create(kName, 0, nullptr)); }).Kill();
  }

  testing::ScratchMachine machine_;
};

TEST_F(MailslotFiles, AKilledProcessLeavesItsNameToTheNext) {
  ChildProcess other([] { new Mailslot(Mailslot::Create(kName, 0, nullptr)); });
  EXPECT_FALSE(Mailslot::Create(kName, 0, nullptr).valid()) << "it lives";
  RemoveStaleMailslots();
  EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kWritten);
  other.Kill();
  ASSERT_TRUE(std::filesystem::is_socket(File()));
  EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kAbsent);
  EXPECT_TRUE(Mailslot::Create(kName, 0, nullptr).valid());
  EXPECT_TRUE(std::filesystem::is_empty(Folder()));
  LeaveBehind();
  RemoveStaleMailslots();
  EXPECT_TRUE(std::filesystem::is_empty(Folder()));
}

TEST_F(MailslotFiles, OnlyOneOfSeveralStartersGetsAStaleName) {
  for (int round = 0; round < 20; ++round) {
    LeaveBehind();
    ASSERT_TRUE(std::filesystem::is_socket(File()));
    std::atomic<int> ready{0};
    std::atomic<int> winners{0};
    std::array<Mailslot, 4> mailslots;
    std::vector<std::thread> starters;
    for (Mailslot& mailslot : mailslots) {
      starters.emplace_back([&] {
        for (++ready; ready < 4;) {
        }
        mailslot = Mailslot::Create(kName, 0, nullptr);
        winners += mailslot.valid() ? 1 : 0;
      });
    }
    for (std::thread& starter : starters) starter.join();
    ASSERT_EQ(winners, 1);
    ASSERT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kWritten);
  }
}

TEST_F(MailslotFiles, WhatIsNoSocketIsNeitherReplacedNorWrittenTo) {
  const Mailslot other = Mailslot::Create(u"\\\\.\\mailslot\\other", 0, nullptr);
  for (const auto& thing : testing::ThingsInTheWay(File(), "other")) {
    SCOPED_TRACE(thing.what);
    thing.Make();
    EXPECT_FALSE(Mailslot::Create(kName, 0, nullptr).valid());
    EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kFailed);
    RemoveStaleMailslots();
    EXPECT_TRUE(std::filesystem::remove(File())) << "still there";
  }
  {
    const Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
    std::filesystem::remove(File());
    std::ofstream(File()) << "somebody else's";
  }
  EXPECT_TRUE(std::filesystem::exists(File())) << "a mailslot removes no file but its own";
  EXPECT_FALSE(Mailslot::Create(kName, 0, nullptr).valid());
  EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kFailed);
  RemoveStaleMailslots();
  EXPECT_TRUE(std::filesystem::exists(File()));
}

// What a sender may hand over instead of a message that no longer changes.
TEST_F(MailslotFiles, DescriptorsThatAreNoSealedMemoryFileAreClosedAndDropped) {
  Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
  const Descriptor sender(socket(AF_UNIX, SOCK_DGRAM, 0));
  const auto send = [&](int descriptor, std::size_t copies, std::string_view data) {
    const Descriptor file(open(File().c_str(), O_PATH));
    const UnixAddress address = UnixAddress::OfDescriptor(file.get());
    alignas(cmsghdr) std::array<char, CMSG_SPACE(253 * sizeof(int))> control{};
    iovec vector{const_cast<char*>(data.data()), data.size()};
    msghdr header{const_cast<sockaddr*>(address.get()),
                  address.size(),
                  &vector,
                  1,
                  control.data(),
                  CMSG_SPACE(copies * sizeof(int)),
                  0};
    cmsghdr* const rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(copies * sizeof(int));
    std::fill_n(reinterpret_cast<int*>(CMSG_DATA(rights)), copies, descriptor);
    ASSERT_EQ(sendmsg(sender.get(), &header, 0), static_cast<ssize_t>(data.size()));
  };
  const auto memoryFile = [](off_t size, int seals) {
    Descriptor file(memfd_create("x", MFD_ALLOW_SEALING));
    EXPECT_EQ(ftruncate(file.get(), size), 0);
    EXPECT_EQ(fcntl(file.get(), F_ADD_SEALS, seals), 0);
    return file;
  };
  const auto openDescriptors = [] {
    return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/fd"));
  };
  const int fixed = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
  const Descriptor good = memoryFile(3, fixed);
  const Descriptor writable = memoryFile(10, fixed & ~F_SEAL_WRITE);
  const Descriptor shrinking = memoryFile(10, fixed & ~F_SEAL_SHRINK);
  const Descriptor huge = memoryFile(off_t{1} << 40, fixed);
  const Descriptor directory(open("/", O_RDONLY | O_DIRECTORY));
  const struct {
    const char* what;
    int descriptor;
    std::size_t copies = 1;
    std::string_view data = {};
  } cases[] = {{"can still be written", writable.get()},
               {"can still shrink", shrinking.get()},
               {"would take a terabyte", huge.get()},
               {"no memory file", directory.get()},
               {"a socket", sender.get()},
               {"as many as fit", good.get(), 253},
               {"with bytes beside", good.get(), 1, "bytes"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto before = openDescriptors();
    send(c.descriptor, c.copies, c.data);
    ASSERT_EQ(WriteMailslot(kName, std::as_bytes(std::span("next", 4)), 0),
              MailslotWrite::kWritten);
    EXPECT_EQ(mailslot.Query()->nextSize, 4u);
    std::byte buffer[4];
    EXPECT_EQ(mailslot.Read(buffer, {}), 4u);
    EXPECT_EQ(openDescriptors(), before);
  }
  send(good.get(), 1, "");
  EXPECT_EQ(mailslot.Query()->nextSize, 3u) << "and a good one is taken";
}

}  // namespace
}  // namespace talvorn::platform
