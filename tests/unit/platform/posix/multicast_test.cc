// Receivers on a host with two interfaces, and a device on the other end of each.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/network_interfaces.h"
#include "platform/posix/private_network.h"
#include "platform/socket.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

constexpr std::uint16_t kPort = 4817;
constexpr std::uint32_t kGenerousMs = 30'000;
constexpr std::uint32_t kHostIndex[] = {101, 102};
constexpr std::uint32_t kDeviceIndex[] = {201, 202};

bool WaitUntilTrue(const std::function<bool()>& condition) {
  const std::uint64_t start = MonotonicMs();
  while (!condition()) {
    if (MonotonicMs() - start > kGenerousMs) return false;
    SleepMs(5);
  }
  return true;
}

class Multicast : public testing::TestWithParam<AddressFamily> {
 protected:
  void SetUp() override {
    host_ = NetworkNamespace::Create();
    device_ = NetworkNamespace::Create();
    if (!host_ || !device_) GTEST_SKIP() << kNoNamespaces;
    ASSERT_TRUE(Connect(0));
    ASSERT_TRUE(Connect(1));
  }

  [[nodiscard]] bool v4() const { return GetParam() == AddressFamily::kIpv4; }

  // Interface host0 or host1 with its device on the other end. The neighbours are
  // known from the start: nothing sent waits for an answer first.
  bool Connect(int n) {
    const std::string i = std::to_string(n);
    const auto side = [&](const std::string& name, const std::string& own,
                          const std::string& peer) {
      return "link set " + name + i + " up\n" +                                        //
             "addr add 10.0." + i + "." + own + "/24 dev " + name + i + "\n" +         //
             "addr add fd00:" + i + "::" + own + "/64 dev " + name + i + " nodad\n" +  //
             "neigh replace 10.0." + i + "." + peer + " lladdr 02:00:00:00:0" + i + ":0" + peer +
             " dev " + name + i + " nud permanent\n" +  //
             "neigh replace fd00:" + i + "::" + peer + " lladdr 02:00:00:00:0" + i + ":0" + peer +
             " dev " + name + i + " nud permanent\n";
    };
    return host_->Ip("link add host" + i + " index " + std::to_string(kHostIndex[n]) +
                     " address 02:00:00:00:0" + i + ":01 type veth peer name device" + i +
                     " index " + std::to_string(kDeviceIndex[n]) + " address 02:00:00:00:0" + i +
                     ":02 netns " + device_->name() + "\n") &&
           device_->Ip(side("device", "2", "1")) && host_->Ip(side("host", "1", "2")) &&
           WaitUntilTrue(
               [&] { return Ready(*host_, kHostIndex[n]) && Ready(*device_, kDeviceIndex[n]); });
  }

  static bool Ready(const NetworkNamespace& place, std::uint32_t index) {
    return place.Inside([&] {
      const auto rows = QueryIpv4AddressTable();
      const auto adapters = QueryIpv6Adapters();
      if (!rows || !adapters) return false;
      bool v4Ready = false;
      bool v6Ready = false;
      for (const auto& row : *rows) v4Ready = v4Ready || row.interfaceIndex == index;
      for (const auto& adapter : *adapters) {
        v6Ready = v6Ready || (adapter.ipv6IfIndex == index && adapter.operStatus == kOperStatusUp &&
                              (adapter.flags & kAdapterIpv6Enabled) != 0);
      }
      return v4Ready && v6Ready;
    });
  }

  [[nodiscard]] SocketAddress Resolve(const std::string& text) const {
    const auto result = ResolveAddress(text.c_str(), "4817", {.numericHost = true});
    return result ? result->address : SocketAddress{};
  }
  [[nodiscard]] SocketAddress Group(int n) const {
    return Resolve((v4() ? "239.255.240." : "ff04:4817::") + std::to_string(n));
  }
  [[nodiscard]] std::uint32_t InterfaceValue(int n, const char* own) const {
    if (v4()) return ParseIpv4(("10.0." + std::to_string(n) + "." + own).c_str());
    return *own == '1' ? kHostIndex[n] : kDeviceIndex[n];
  }

  // A receiver of the host for group `group` on interface `n`.
  [[nodiscard]] Socket Receiver(int group, int n) const {
    return host_->Inside([&] {
      Socket socket = Socket::Create(GetParam(), SocketType::kDatagram);
      socket.EnlargeReceiveBuffer(1 << 20);
      EXPECT_TRUE(socket.SetReuseAddress());
      EXPECT_TRUE(
          socket.Bind(v4() ? SocketAddress::Ipv4(0, kPort) : SocketAddress::Ipv6({}, 0, kPort)));
      EXPECT_TRUE(socket.JoinGroup(Group(group), InterfaceValue(n, "1")));
      return socket;
    });
  }

  // What the device on interface `n` sends.
  void Send(int n, const SocketAddress& destination, const std::string& text) const {
    device_->Inside([&] {
      Socket socket = Socket::Create(GetParam(), SocketType::kDatagram);
      EXPECT_TRUE(socket.SetMulticastHops(64));
      EXPECT_TRUE(socket.SetMulticastLoopback(false));
      EXPECT_TRUE(socket.SetMulticastInterface(InterfaceValue(n, "2")));
      EXPECT_EQ(socket.SendTo(std::as_bytes(std::span(text)), destination), text.size());
    });
  }

  struct Heard {
    std::vector<std::string> texts;
    int passedOver = 0;  // datagrams that reached the socket but were not for it
    std::string source;
  };
  // Everything that reaches `socket` up to the datagram "end".
  static Heard Listen(Socket& socket) {
    Heard heard;
    std::array<std::byte, 1500> buffer;
    for (;;) {
      if (socket.WaitReadable(kGenerousMs) != WaitStatus::kSignalled) return heard;
      std::size_t size = 0;
      SocketAddress source;
      if (socket.ReceiveFrom(buffer, size, source) != ReceiveStatus::kReceived) {
        ++heard.passedOver;
        continue;
      }
      heard.source = NumericHost(source, 50);
      heard.texts.emplace_back(reinterpret_cast<const char*>(buffer.data()), size);
      if (heard.texts.back() == "end") return heard;
    }
  }

  std::optional<NetworkNamespace> host_;
  std::optional<NetworkNamespace> device_;
};

using Texts = std::vector<std::string>;

TEST_P(Multicast, ReceiverHearsItsOwnGroupOnly) {
  Socket requests = Receiver(1, 0);
  Socket answers = Receiver(2, 0);
  Send(0, Group(1), "request");
  Send(0, Group(2), "answer");
  Send(0, Group(1), "end");
  Send(0, Group(2), "end");
  const Heard request = Listen(requests);
  const Heard answer = Listen(answers);
  EXPECT_EQ(request.texts, (Texts{"request", "end"}));
  EXPECT_EQ(answer.texts, (Texts{"answer", "end"}));
  // A storm of answers costs the receiver of requests nothing.
  EXPECT_EQ(request.passedOver + answer.passedOver, 0);
}

TEST_P(Multicast, ReceiverPassesOverWhatIsSentToTheHostItself) {
  Socket receiver = Receiver(2, 0);
  Send(0, Resolve(v4() ? "10.0.0.1" : "fd00:0::1"), "unicast");
  Send(0, Group(2), "end");
  const Heard heard = Listen(receiver);
  EXPECT_EQ(heard.texts, (Texts{"end"}));
  EXPECT_EQ(heard.passedOver, 1);
  EXPECT_EQ(heard.source, v4() ? "10.0.0.2" : "fd00::2");
}

TEST_P(Multicast, InterfacesAreSeparate) {
  Socket first = Receiver(2, 0);
  Socket second = Receiver(2, 1);
  Send(0, Group(2), "on 0");
  Send(1, Group(2), "on 1");
  Send(0, Group(2), "end");
  Send(1, Group(2), "end");
  EXPECT_EQ(Listen(first).texts, (Texts{"on 0", "end"}));
  EXPECT_EQ(Listen(second).texts, (Texts{"on 1", "end"}));
}

TEST_P(Multicast, RejoinHearsAnInterfaceThatWasMadeAnew) {
  Socket remade = Receiver(2, 0);
  Socket other = Receiver(2, 1);
  ASSERT_TRUE(host_->Ip("link del host0\n"));
  host_->Inside([&] { EXPECT_FALSE(remade.RejoinGroup()); });
  ASSERT_TRUE(Connect(0));
  host_->Inside([&] {
    EXPECT_TRUE(remade.RejoinGroup());
    EXPECT_TRUE(remade.RejoinGroup());
  });
  Send(1, Group(2), "on 1");
  Send(0, Group(2), "end");
  Send(1, Group(2), "end");
  EXPECT_EQ(Listen(remade).texts, (Texts{"end"}));
  EXPECT_EQ(Listen(other).texts, (Texts{"on 1", "end"}));
}

// IPv4 memberships hang on an address, which may go and move.
class Ipv4Multicast : public Multicast {};

TEST_P(Ipv4Multicast, RejoinFollowsAnAddressToAnotherInterface) {
  Socket receiver = Receiver(2, 0);
  // The last address: the interface forgets its memberships with it.
  ASSERT_TRUE(host_->Ip("addr del 10.0.0.1/24 dev host0\n"));
  ASSERT_TRUE(host_->Ip("addr add 10.0.0.1/24 dev host0\n"));
  host_->Inside([&] { EXPECT_TRUE(receiver.RejoinGroup()); });
  Send(0, Group(2), "end");
  EXPECT_EQ(Listen(receiver).texts, (Texts{"end"}));

  ASSERT_TRUE(host_->Ip("addr del 10.0.0.1/24 dev host0\naddr add 10.0.0.1/24 dev host1\n"));
  host_->Inside([&] { EXPECT_TRUE(receiver.RejoinGroup()); });
  Send(0, Group(2), "on 0");
  Send(1, Group(2), "end");
  EXPECT_EQ(Listen(receiver).texts, (Texts{"end"}));
}

TEST_P(Ipv4Multicast, SendsFromTheAddressThatWasChosen) {
  ASSERT_TRUE(device_->Ip("addr add 10.0.0.3/24 dev device0\n"));
  Socket receiver = Receiver(2, 0);
  device_->Inside([&] {
    Socket socket = Socket::Create(GetParam(), SocketType::kDatagram);
    EXPECT_FALSE(socket.SetMulticastInterface(ParseIpv4("10.9.9.9")));
    EXPECT_TRUE(socket.SetMulticastInterface(ParseIpv4("10.0.0.3")));
    EXPECT_TRUE(socket.SendTo(std::as_bytes(std::span("end", 3)), Group(2)));
  });
  EXPECT_EQ(Listen(receiver).source, "10.0.0.3");
}

INSTANTIATE_TEST_SUITE_P(Families, Multicast,
                         testing::Values(AddressFamily::kIpv4, AddressFamily::kIpv6),
                         [](const auto& suite) {
                           return suite.param == AddressFamily::kIpv4 ? "Ipv4" : "Ipv6";
                         });
INSTANTIATE_TEST_SUITE_P(Only, Ipv4Multicast, testing::Values(AddressFamily::kIpv4));

}  // namespace
}  // namespace talvorn::platform
