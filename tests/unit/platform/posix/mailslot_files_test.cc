// Mailslots as files that others can get at, and messages made by somebody hostile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/mailslot.h"
#include "platform/mailslot_name.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/forms/runtime_directory.h"
#include "platform/posix/forms/unread_files.h"
#include "platform/posix/unix_address.h"
#include "platform/text_encoding.h"
#include "testing/child_process.h"
#include "testing/scratch_machine.h"
#include "testing/things_in_the_way.h"
#include "testing/wait_until.h"

namespace talvorn::platform {
namespace {

using Taken = Mailslot::Taken;

constexpr std::span<const std::byte> kEmpty;
using testing::ChildProcess;

const std::u16string kName = MailslotName(u"Talvorn_Test");

class MailslotFiles : public ::testing::Test {
 protected:
  MailslotFiles() { chmod(machine_.root().c_str(), 0755); }
  [[nodiscard]] std::filesystem::path File() const {
    return machine_.root() / "run/mailslot/talvorn_test";
  }

  testing::ScratchMachine machine_;
  Message message_;
};

TEST_F(MailslotFiles, OnlyOneOfSeveralStartersGetsAStaleName) {
  for (int round = 0; round < 20; ++round) {
    ChildProcess([] { new Mailslot(Mailslot::Create(kName, nullptr)); }).Kill();
    ASSERT_TRUE(std::filesystem::is_socket(File()));
    std::atomic<int> ready{0};
    std::atomic<int> winners{0};
    std::array<Mailslot, 4> mailslots;
    std::vector<std::thread> starters;
    for (Mailslot& mailslot : mailslots) {
      starters.emplace_back([&] {
        for (++ready; ready < 4;) {
        }
        mailslot = Mailslot::Create(kName, nullptr);
        winners += mailslot.valid() ? 1 : 0;
      });
    }
    for (std::thread& starter : starters) starter.join();
    ASSERT_EQ(winners, 1);
    ASSERT_EQ(WriteMailslot(kName, kEmpty, 0), MailslotWrite::kWritten);
  }
}

TEST_F(MailslotFiles, WhatIsNoSocketIsNeitherReplacedNorWrittenTo) {
  const Mailslot other = Mailslot::Create(MailslotName(u"other"), nullptr);
  for (const auto& thing : testing::ThingsInTheWay(File(), "other")) {
    SCOPED_TRACE(thing.what);
    thing.Make();
    EXPECT_FALSE(Mailslot::Create(kName, nullptr).valid());
    EXPECT_EQ(WriteMailslot(kName, kEmpty, 0), MailslotWrite::kFailed);
    RemoveStaleMailslots();
    EXPECT_TRUE(std::filesystem::remove(File())) << "still there";
  }
}

// Sends one datagram with descriptors to the mailslot's file; false when it is refused.
bool SendFiles(const std::filesystem::path& path, const std::vector<int>& files) {
  const Descriptor file(open(path.c_str(), O_PATH));
  const UnixAddress address = UnixAddress::OfDescriptor(file.get());
  const Descriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  if (connect(sender.get(), address.get(), address.size()) != 0) return false;
  alignas(cmsghdr) std::array<std::byte, 1'024> control{};
  msghdr header{};
  header.msg_control = control.data();
  header.msg_controllen = CMSG_SPACE(files.size() * sizeof(int));
  cmsghdr* const rights = CMSG_FIRSTHDR(&header);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(files.size() * sizeof(int));
  std::memcpy(CMSG_DATA(rights), files.data(), files.size() * sizeof(int));
  return sendmsg(sender.get(), &header, 0) == 0;
}

// A memory file of `size` zeros.
Descriptor SealedFile(off_t size, int seals) {
  Descriptor file(memfd_create("x", MFD_ALLOW_SEALING));
  EXPECT_EQ(ftruncate(file.get(), size), 0);
  EXPECT_EQ(fcntl(file.get(), F_ADD_SEALS, seals), 0);
  return file;
}
constexpr int kAllSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;

// Whoever could still cut a message short while it is read would end the reader.
TEST_F(MailslotFiles, AMemoryFileThatMayStillChangeIsNoMessage) {
  Mailslot mailslot = Mailslot::Create(kName, nullptr);
  for (const int missing : {F_SEAL_SHRINK, F_SEAL_WRITE, 0}) {
    ASSERT_TRUE(SendFiles(File(), {SealedFile(3, kAllSeals & ~missing).get()}));
    EXPECT_EQ(mailslot.Take(message_, 3), missing == 0 ? Taken::kMessage : Taken::kLost);
  }
}

// A socket that takes a minute to close: it lingers over bytes that nobody reads.
struct LingeringSocket {
  LingeringSocket() {
    const Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr address{.sa_family = AF_INET, .sa_data = {}};  // a free port of any address
    socklen_t size = sizeof(address);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    EXPECT_EQ(getsockname(listener.get(), &address, &size), 0);
    near = Descriptor(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(connect(near.get(), &address, size), 0);
    far = Descriptor(accept(listener.get(), nullptr, nullptr));
    const linger minute{1, 60};
    EXPECT_EQ(setsockopt(near.get(), SOL_SOCKET, SO_LINGER, &minute, sizeof(minute)), 0);
    const std::vector<char> bytes(1 << 16);
    while (send(near.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
  }
  Descriptor near;
  Descriptor far;
};

TEST_F(MailslotFiles, ALingeringSocketThatComesAlongHoldsNobodyUp) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  constexpr std::uint64_t kPatienceMs = 20'000;
  std::vector<LingeringSocket> sockets(20);
  Mailslot mailslot = Mailslot::Create(kName, nullptr);
  ASSERT_TRUE(mailslot.AcceptOnlyFromOwnerOf(kName));
  const auto sendAll = [&] {
    std::vector<int> files;
    for (const LingeringSocket& one : sockets) files.push_back(one.near.get());
    const bool sent =
        testing::DoneByNobody([&] { return SendFiles(File(), files) && SendFiles(File(), files); });
    for (LingeringSocket& one : sockets) one.near.Close();  // returns, as the queue holds them
    return sent;
  };
  ASSERT_TRUE(sendAll());
  ASSERT_EQ(WriteMailslot(kName, std::array<std::byte, 3>{}, 0), MailslotWrite::kWritten);

  const std::uint64_t start = MonotonicMs();
  EXPECT_TRUE(testing::WaitUntil([&] { return mailslot.Take(message_, 3) == Taken::kMessage; }));
  EXPECT_LT(MonotonicMs() - start, kPatienceMs);

  sockets = std::vector<LingeringSocket>(20);
  ASSERT_TRUE(sendAll());
  mailslot = {};
  EXPECT_LT(MonotonicMs() - start, 2 * kPatienceMs) << "closing";
}

TEST_F(MailslotFiles, OnlyTheAccountThatIsListenedToIsHeard) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  Mailslot mailslot = Mailslot::Create(kName, nullptr);
  ASSERT_TRUE(mailslot.AcceptOnlyFromOwnerOf(kName));
  const std::array<std::byte, 3> message{};
  ASSERT_TRUE(testing::DoneByNobody([&] {
    const Descriptor huge = SealedFile(256 << 20, kAllSeals);
    return WriteMailslot(kName, std::array<std::byte, 7>{}, 0) == MailslotWrite::kWritten &&
           SendFiles(File(), {huge.get()});
  }));
  ASSERT_EQ(WriteMailslot(kName, message, 0), MailslotWrite::kWritten);
  EXPECT_TRUE(testing::WaitUntil([&] { return mailslot.Take(message_, 7) == Taken::kMessage; }));
  EXPECT_EQ(message_.bytes().size(), message.size());
}

TEST_F(MailslotFiles, TheLocatorsOwnStandsBesideTheFolderThatAllMayWriteTo) {
  const Mailslot locators = Mailslot::Create(kLocatorMailslot, nullptr);
  EXPECT_TRUE(std::filesystem::is_socket(machine_.root() / "run/talvorn_out"));
  EXPECT_TRUE(MailslotExists(kLocatorMailslot));
  EXPECT_TRUE(std::filesystem::is_empty(machine_.root() / "run/mailslot"));
  const Descriptor null(open("/dev/null", O_RDONLY));
  Mailslot other = Mailslot::Create(kName, nullptr);
  ASSERT_TRUE(SendFiles(File(), {null.get()})) << "a file may come to another one";
  EXPECT_EQ(other.Take(message_, 0), Taken::kLost);
}

// Each large message occupies memory of the writer until it is read.
TEST_F(MailslotFiles, UnreadLargeMessagesAreBoundedInNumber) {
  const std::vector<std::byte> large(200'000);
  const std::vector<std::byte> small(10);
  const auto name = [](std::size_t number) {
    return std::u16string(std::u16string_view(kName)) + u'_' + Utf8ToWide(std::to_string(number));
  };
  std::vector<Mailslot> deaf;
  for (std::size_t i = 0; i < 2 * UnreadFiles::kMostOfAccount; ++i) {
    deaf.push_back(Mailslot::Create(name(i), nullptr));
    EXPECT_EQ(WriteMailslot(name(i), large, 0) == MailslotWrite::kWritten,
              i < UnreadFiles::kMostOfAccount);
    EXPECT_EQ(WriteMailslot(name(i), large, 0), MailslotWrite::kFull) << "one waits already";
    EXPECT_EQ(WriteMailslot(name(i), small, 0), MailslotWrite::kWritten);
  }
  // Who has read gets the next.
  ASSERT_EQ(deaf.front().Take(message_, large.size()), Taken::kMessage);
  EXPECT_EQ(WriteMailslot(name(0), large, 0), MailslotWrite::kWritten);
  deaf.clear();
  const Mailslot again = Mailslot::Create(kName, nullptr);
  EXPECT_EQ(WriteMailslot(kName, large, 0), MailslotWrite::kWritten) << "gone with the readers";
}

}  // namespace
}  // namespace talvorn::platform
