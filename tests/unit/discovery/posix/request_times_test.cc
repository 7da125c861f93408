// When a request thread asks, and when it leaves that to another locator: to the
// millisecond, by a clock that the test moves.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <array>
#include <string>

#include "discovery/datagram.h"
#include "discovery/multicast_request.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/unix_address.h"
#include "platform/posix/wait.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "support/debug_trace.h"
#include "testing/fake_clock.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::Descriptor;
using platform::Socket;
using platform::SocketAddress;

// As long as a thread may take; and as long as one is given to do what it should not.
constexpr std::uint32_t kGenerousMs = 60'000;
constexpr std::uint32_t kAmpleMs = 50;

class RequestTimes : public ::testing::Test {
 protected:
  void SetUp() override {
    if (unshare(CLONE_NEWNET) != 0 || system("ip link set lo up") != 0)
      GTEST_SKIP() << "needs root to make a network of its own";
    DebugTrace().SetEnabled(0);
    const platform::UnixAddress address((machine_.root() / "journal").string());
    ASSERT_EQ(bind(journal_.get(), address.get(), address.size()), 0);
    item_.id = platform::ParseIpv4("127.0.0.1");
    item_.ipVersion = 4;
    item_.ownRequests = &own_;
    own_.SetAddresses(platform::AddressFamily::kIpv4, {platform::HostAddress::Ipv4(item_.id)});
    item_.running.Set();
    item_.thread = platform::Thread::Start(
        "request", [this] { return ThreadMulticastRequest(item_, clock_); });
  }
  void TearDown() override {
    item_.running.Clear();
    clock_.Advance(1'000);
    item_.thread.Join();
    ASSERT_EQ(setns(before_.get(), CLONE_NEWNET), 0);
  }

  // The next report that comes within the time; empty when none does.
  std::string Report(std::uint32_t limitMs) {
    if (platform::WaitForDescriptor(journal_.get(), POLLIN, limitMs) !=
        platform::WaitStatus::kSignalled) {
      return {};
    }
    std::array<char, 4'096> entry{};
    const ssize_t size = recv(journal_.get(), entry.data(), entry.size(), 0);
    const std::string text(entry.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    const std::size_t begin = text.find("MESSAGE=") + 8;
    return text.substr(begin, text.find('\n', begin) - begin);
  }
  void ExpectRequest() {
    EXPECT_EQ(Report(kGenerousMs), "Multicast request sent from network IPv4interface: 127.0.0.1");
  }
  void ExpectNone() { EXPECT_EQ(Report(kAmpleMs), ""); }

  void AnotherLocatorAsks() {
    Socket other = Socket::Create(platform::AddressFamily::kIpv4, platform::SocketType::kDatagram);
    const auto address = SocketAddress::Ipv4(platform::ParseIpv4("127.0.0.2"), 0);
    ASSERT_EQ(other.Bind(address), platform::BindOutcome::kBound);
    ASSERT_TRUE(other.SetMulticastLoopback(true) && other.SetMulticastInterface(item_.id));
    const auto request = EncodeDiscoveryRequest({});
    const auto group = SocketAddress::Ipv4(platform::ParseIpv4(kRequestGroupIpv4), kDiscoveryPort);
    ASSERT_EQ(other.SendTo(request, group), request.size());
    EXPECT_EQ(Report(kGenerousMs), "Multicast request received from network interface: 127.0.0.1");
  }

  const Descriptor before_{open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)};
  const Descriptor journal_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  testing::ScratchMachine machine_;
  testing::FakeClock clock_;
  OwnRequests own_;
  ThreadItem item_;
};

TEST_F(RequestTimes, ItAsksOncePerPeriodUnlessAnotherLocatorDoes) {
  ExpectRequest();  // at its start
  ExpectRequest();  // in its first pass
  ASSERT_TRUE(testing::WaitUntil([this] { return clock_.sleepers() == 2; }));
  clock_.Advance(1'000);  // the timers' own start
  ASSERT_TRUE(testing::WaitUntil([this] { return clock_.sleepers() == 0; }));
  clock_.Advance(3'999);
  ExpectNone();
  clock_.Advance(1);
  ExpectRequest();
  clock_.Advance(5'000);
  ExpectRequest();

  // A minute of silence counts from the last request that was heard.
  AnotherLocatorAsks();
  clock_.Advance(59'999);
  ExpectNone();
  AnotherLocatorAsks();
  clock_.Advance(59'999);
  ExpectNone();
  clock_.Advance(1);
  ExpectRequest();
  clock_.Advance(5'000);
  ExpectRequest();
}

}  // namespace
}  // namespace talvorn
