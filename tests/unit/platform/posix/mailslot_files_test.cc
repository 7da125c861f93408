// Mailslots as files that others can get at, and messages made by somebody hostile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/mailslot.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/memory_file.h"
#include "platform/posix/runtime_directory.h"
#include "platform/posix/unix_address.h"
#include "testing/child_process.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

using testing::ChildProcess;

constexpr std::u16string_view kName = u"\\\\.\\mailslot\\Talvorn_Test";

std::size_t OpenDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

class MailslotFiles : public ::testing::Test {
 protected:
  [[nodiscard]] std::filesystem::path Folder() const { return machine_.root() / "run/mailslot"; }
  [[nodiscard]] std::filesystem::path File() const { return Folder() / "talvorn_test"; }
  [[nodiscard]] static mode_t ModeOf(const std::filesystem::path& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }

  testing::ScratchMachine machine_;
  Event readEvent_;
};

TEST_F(MailslotFiles, TheSocketHasTheModeOfItsSecurityAndGoesWithTheMailslot) {
  std::filesystem::remove_all(machine_.root() / "run");
  const SidPointer administrators = AllocateSid(5, {32, 544});
  const AclPointer acl = MakeAcl(
      std::array{ExplicitAccess{.accessMask = kGenericAll, .trustee = administrators.get()}});
  const DescriptorPointer descriptor = AllocateDescriptor();
  ASSERT_TRUE(InitializeDescriptor(*descriptor, 1) && SetDescriptorDacl(*descriptor, *acl));
  const SecurityAttributes closed{24, descriptor.get(), true};

  const mode_t before = umask(077);
  const std::pair<const SecurityAttributes*, mode_t> cases[] = {{nullptr, 0666}, {&closed, 0600}};
  for (const auto& [security, mode] : cases) {
    const Mailslot mailslot = Mailslot::Create(kName, 0, security);
    ASSERT_TRUE(mailslot.valid());
    EXPECT_EQ(ModeOf(File()), mode);
    EXPECT_EQ(ModeOf(Folder()), 01777u);
  }
  umask(before);
  EXPECT_TRUE(std::filesystem::is_empty(Folder()));
}

TEST_F(MailslotFiles, TheLongestNamesWork) {
  const std::u16string name = u"\\\\.\\mailslot\\" + std::u16string(50, u'\u6F22');
  Mailslot mailslot = Mailslot::Create(name, 0, nullptr);
  ASSERT_TRUE(mailslot.valid());
  EXPECT_EQ(WriteMailslot(name, {}, 0), MailslotWrite::kWritten);
  EXPECT_EQ(mailslot.Query()->nextSize, 0u);
}

TEST_F(MailslotFiles, AKilledProcessLeavesItsNameToTheNext) {
  ChildProcess other([] { new Mailslot(Mailslot::Create(kName, 0, nullptr)); });
  ASSERT_TRUE(std::filesystem::is_socket(File()));
  EXPECT_FALSE(Mailslot::Create(kName, 0, nullptr).valid()) << "it lives";
  other.Kill();
  EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kAbsent);
  const Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
  EXPECT_TRUE(mailslot.valid());
  EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kWritten);
}

TEST_F(MailslotFiles, WhatKilledProcessesLeftCanBeRemoved) {
  ChildProcess([] { new Mailslot(Mailslot::Create(kName, 0, nullptr)); }).Kill();
  const Mailslot alive = Mailslot::Create(u"\\\\.\\mailslot\\alive", 0, nullptr);
  std::ofstream(Folder() / "file") << "not a socket";
  RemoveStaleMailslots();
  EXPECT_FALSE(std::filesystem::exists(File()));
  EXPECT_TRUE(std::filesystem::exists(Folder() / "alive"));
  EXPECT_TRUE(std::filesystem::exists(Folder() / "file"));
}

TEST_F(MailslotFiles, OnlyOneOfSeveralStartersGetsAStaleName) {
  for (int round = 0; round < 20; ++round) {
    ChildProcess([] { new Mailslot(Mailslot::Create(kName, 0, nullptr)); }).Kill();
    ASSERT_TRUE(std::filesystem::is_socket(File()));
    std::atomic<int> ready{0};
    std::array<Mailslot, 4> mailslots;
    std::vector<std::thread> starters;
    for (Mailslot& mailslot : mailslots) {
      starters.emplace_back([&] {
        for (++ready; ready < 4;) {
        }
        mailslot = Mailslot::Create(kName, 0, nullptr);
      });
    }
    for (std::thread& starter : starters) starter.join();
    int winners = 0;
    for (const Mailslot& mailslot : mailslots) winners += mailslot.valid() ? 1 : 0;
    ASSERT_EQ(winners, 1);
    ASSERT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kWritten);
  }
  EXPECT_TRUE(std::filesystem::is_empty(Folder()));
}

TEST_F(MailslotFiles, ALockedFolderDoesNotKeepAMailslotFromBeingMade) {
  const Descriptor folder(open(Folder().c_str(), O_RDONLY | O_DIRECTORY));
  ASSERT_EQ(flock(folder.get(), LOCK_EX), 0);
  const std::uint64_t start = MonotonicMs();
  EXPECT_TRUE(Mailslot::Create(kName, 0, nullptr).valid());
  EXPECT_GE(MonotonicMs() - start, 500u) << "it waits for its turn, within reason";
}

TEST_F(MailslotFiles, WhatIsNoSocketIsNeitherReplacedNorWrittenTo) {
  const Mailslot other = Mailslot::Create(u"\\\\.\\mailslot\\other", 0, nullptr);
  const std::pair<const char*, std::function<void()>> things[] = {
      {"a file", [&] { std::ofstream(File()) << "precious"; }},
      {"a directory", [&] { std::filesystem::create_directory(File()); }},
      {"a pipe", [&] { ASSERT_EQ(mkfifo(File().c_str(), 0666), 0); }},
      {"a link to a socket", [&] { std::filesystem::create_symlink("other", File()); }},
      {"a link to nothing", [&] { std::filesystem::create_symlink("none", File()); }},
  };
  for (const auto& [what, make] : things) {
    make();
    const auto before = std::filesystem::symlink_status(File()).type();
    EXPECT_FALSE(Mailslot::Create(kName, 0, nullptr).valid()) << what;
    EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kFailed) << what;
    EXPECT_EQ(std::filesystem::symlink_status(File()).type(), before) << what;
    std::filesystem::remove(File());
  }
  // A socket of elsewhere under a second name.
  std::filesystem::create_hard_link(Folder() / "other", File());
  EXPECT_EQ(WriteMailslot(kName, {}, 0), MailslotWrite::kFailed);
}

TEST_F(MailslotFiles, AMailslotRemovesNoFileButItsOwn) {
  {
    const Mailslot mailslot = Mailslot::Create(kName, 0, nullptr);
    std::filesystem::remove(File());
    std::ofstream(File()) << "somebody else's";
  }
  EXPECT_TRUE(std::filesystem::exists(File()));
}

class HostileMessages : public MailslotFiles {
 protected:
  HostileMessages()
      : mailslot_(Mailslot::Create(kName, 0, nullptr)),
        file_(open(File().c_str(), O_PATH)),
        socket_(socket(AF_UNIX, SOCK_DGRAM, 0)) {}

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
    EXPECT_EQ(mailslot_.Read(buffer, readEvent_), 4u);
    EXPECT_EQ(OpenDescriptors(), before);
  }

  void Send(const std::vector<int>& descriptors, std::string_view data) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(253 * sizeof(int))> control{};
    const std::size_t bytes = descriptors.size() * sizeof(int);
    iovec vector{const_cast<char*>(data.data()), data.size()};
    msghdr header{};
    const UnixAddress address = UnixAddress::OfDescriptor(file_.get());
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

  Mailslot mailslot_;
  Descriptor file_;
  Descriptor socket_;
};

TEST_F(HostileMessages, DescriptorsThatAreNoSealedMemoryFileAreClosedAndDropped) {
  const Descriptor sealed = MakeMemoryFile(std::as_bytes(std::span("abc", 3)));
  const Descriptor unsealed(memfd_create("x", MFD_ALLOW_SEALING));
  ASSERT_EQ(ftruncate(unsealed.get(), 10), 0);
  const Descriptor growing(memfd_create("x", MFD_ALLOW_SEALING));
  ASSERT_EQ(fcntl(growing.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_WRITE), 0);
  const Descriptor huge(memfd_create("x", MFD_ALLOW_SEALING));
  ASSERT_EQ(ftruncate(huge.get(), off_t{1} << 40), 0);
  ASSERT_EQ(
      fcntl(huge.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL), 0);
  const Descriptor directory(open("/", O_RDONLY | O_DIRECTORY));

  ExpectDropped("can still be written", {unsealed.get()});
  ExpectDropped("can still grow", {growing.get()});
  ExpectDropped("would take a terabyte", {huge.get()});
  ExpectDropped("no memory file", {directory.get()});
  ExpectDropped("a socket", {socket_.get()});
  ExpectDropped("two at once", {sealed.get(), sealed.get()});
  ExpectDropped("as many as fit", std::vector<int>(253, sealed.get()));
  ExpectDropped("with bytes beside", {sealed.get()}, "bytes");

  Send({sealed.get()}, "");
  EXPECT_EQ(mailslot_.Query()->nextSize, 3u) << "and a good one is taken";
}

}  // namespace
}  // namespace talvorn::platform
