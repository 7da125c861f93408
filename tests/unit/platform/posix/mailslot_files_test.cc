// Mailslots as files that others can get at, and messages made by somebody hostile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
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
  [[nodiscard]] std::filesystem::path File() const {
    return machine_.root() / "run/mailslot/talvorn_test";
  }

  testing::ScratchMachine machine_;
};

TEST_F(MailslotFiles, OnlyOneOfSeveralStartersGetsAStaleName) {
  for (int round = 0; round < 20; ++round) {
    ChildProcess([] { new Mailslot(Mailslot::Create(kName, 0, nullptr)); }).Kill();
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
}

// Whoever could still cut a message short while it is read would end the reader.
TEST_F(MailslotFiles, AMemoryFileThatMayStillChangeIsNoMessage) {
  Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
  const Descriptor file(open(File().c_str(), O_PATH));
  const UnixAddress address = UnixAddress::OfDescriptor(file.get());
  const Descriptor sender(socket(AF_UNIX, SOCK_DGRAM, 0));
  ASSERT_EQ(connect(sender.get(), address.get(), address.size()), 0);
  const int all = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
  for (const int missing : {F_SEAL_SHRINK, F_SEAL_WRITE, 0}) {
    const Descriptor memory(memfd_create("x", MFD_ALLOW_SEALING));
    ASSERT_EQ(ftruncate(memory.get(), 3), 0);
    ASSERT_EQ(fcntl(memory.get(), F_ADD_SEALS, all & ~missing), 0);
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header{};
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    cmsghdr* const rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    *reinterpret_cast<int*>(CMSG_DATA(rights)) = memory.get();
    ASSERT_EQ(sendmsg(sender.get(), &header, 0), 0);

    std::byte buffer[3];
    EXPECT_EQ(mailslot.Query()->nextSize.has_value(), missing == 0) << missing;
    EXPECT_EQ(mailslot.Read(buffer, {}).has_value(), missing == 0) << missing;
  }
}

}  // namespace
}  // namespace talvorn::platform
