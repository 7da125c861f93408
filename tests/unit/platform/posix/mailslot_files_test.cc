// Mailslots as files that others can get at, and messages made by somebody hostile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/mailslot.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/memory_file.h"
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
  ASSERT_TRUE(std::filesystem::is_socket(File()));
  EXPECT_FALSE(Mailslot::Create(kName, 0, nullptr).valid()) << "it lives";
  RemoveStaleMailslots();
  EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kWritten);
  other.Kill();
  EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kAbsent);
  {
    const Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
    EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kWritten);
  }
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

class HostileMessages : public MailslotFiles {
 protected:
  // Sends `data` with `descriptors`, and expects what a good message after it says:
  // that nothing of it stays.
  void ExpectDropped(const char* what, const std::vector<int>& descriptors,
                     std::string_view data = {}) {
    SCOPED_TRACE(what);
    const std::size_t before = OpenDescriptors();
    Send(descriptors, data);
    ASSERT_EQ(WriteMailslot(kName, std::as_bytes(std::span("good", 4)), 0),
              MailslotWrite::kWritten);
    EXPECT_EQ(mailslot_.Query()->nextSize, 4u);
    std::byte buffer[4];
    EXPECT_EQ(mailslot_.Read(buffer, {}), 4u);
    EXPECT_EQ(OpenDescriptors(), before);
  }

  void Send(const std::vector<int>& descriptors, std::string_view data) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(253 * sizeof(int))> control{};
    const std::size_t bytes = descriptors.size() * sizeof(int);
    iovec vector{const_cast<char*>(data.data()), data.size()};
    msghdr header{};
    const Descriptor file(open(File().c_str(), O_PATH));
    const UnixAddress address = UnixAddress::OfDescriptor(file.get());
    header.msg_name = const_cast<sockaddr*>(address.get());
    header.msg_namelen = address.size();
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = CMSG_SPACE(bytes);
    cmsghdr* const rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(bytes);
    std::memcpy(CMSG_DATA(rights), descriptors.data(), bytes);
    ASSERT_EQ(sendmsg(socket_.get(), &header, 0), static_cast<ssize_t>(data.size()));
  }

  static std::size_t OpenDescriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }
  static Descriptor MemoryFile(off_t size, int seals) {
    Descriptor file(memfd_create("x", MFD_ALLOW_SEALING));
    EXPECT_EQ(ftruncate(file.get(), size), 0);
    EXPECT_EQ(fcntl(file.get(), F_ADD_SEALS, seals), 0);
    return file;
  }

  Mailslot mailslot_ = Mailslot::Create(kName, 0, nullptr);
  Descriptor socket_{socket(AF_UNIX, SOCK_DGRAM, 0)};
};

TEST_F(HostileMessages, DescriptorsThatAreNoSealedMemoryFileAreClosedAndDropped) {
  const Descriptor sealed = MakeMemoryFile(std::as_bytes(std::span("abc", 3)));
  const Descriptor writable = MemoryFile(10, F_SEAL_SHRINK | F_SEAL_GROW);
  const Descriptor shrinking = MemoryFile(10, F_SEAL_GROW | F_SEAL_WRITE);
  const Descriptor huge =
      MemoryFile(off_t{1} << 40, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
  const Descriptor directory(open("/", O_RDONLY | O_DIRECTORY));

  ExpectDropped("can still be written", {writable.get()});
  ExpectDropped("can still shrink", {shrinking.get()});
  ExpectDropped("would take a terabyte", {huge.get()});
  ExpectDropped("no memory file", {directory.get()});
  ExpectDropped("a socket", {socket_.get()});
  ExpectDropped("as many as fit", std::vector<int>(253, sealed.get()));
  ExpectDropped("with bytes beside", {sealed.get()}, "bytes");

  Send({sealed.get()}, "");
  EXPECT_EQ(mailslot_.Query()->nextSize, 3u) << "and a good one is taken";
}

}  // namespace
}  // namespace talvorn::platform
