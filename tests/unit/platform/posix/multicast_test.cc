// Receivers on a host with two interfaces, and a device on the other end of each.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "platform/network_interfaces.h"
#include "platform/posix/private_network.h"
#include "platform/socket.h"
#include "testing/wait_until.h"

namespace talvorn::platform {
namespace {

constexpr std::uint16_t kPort = 4817;
constexpr std::uint32_t kGenerousMs = 30'000;

using Texts = std::vector<std::string>;

class Multicast : public CabledHost, public ::testing::WithParamInterface<AddressFamily> {
 protected:
  void SetUp() override {
    CabledHost::SetUp();
    if (IsSkipped()) return;
    AddAddresses("one", 101, "1");
    AddAddresses("two", 102, "2");
  }

  void AddAddresses(const std::string& name, std::uint32_t index, const std::string& net) const {
    const auto commands = [&](const std::string& host, const std::string& device) {
      return "addr add 10.0." + net + "." + host + "/24 dev " + device + "\naddr add fd00:" + net +
             "::" + host + "/64 dev " + device + " nodad\n";
    };
    OnHost(commands("1", name));
    Elsewhere(commands("2", name + "-end"));
    ASSERT_TRUE(testing::WaitUntil(
        [&] { return IsReady(*host_, index) && IsReady(*elsewhere_, index + 100); }));
  }
  static bool IsReady(const NetworkNamespace& place, std::uint32_t index) {
    return place.Inside([&] {
      const auto rows = QueryIpv4AddressTable();
      const auto adapters = QueryIpv6Adapters();
      return rows && adapters &&
             std::ranges::any_of(*rows, [&](const auto& r) { return r.interfaceIndex == index; }) &&
             std::ranges::any_of(*adapters, [&](const auto& a) {
               return a.ipv6IfIndex == index && a.operStatus == kOperStatusUp &&
                      (a.flags & kAdapterIpv6Enabled) != 0;
             });
    });
  }

  [[nodiscard]] bool v4() const { return GetParam() == AddressFamily::kIpv4; }
  [[nodiscard]] SocketAddress Group(int n) const {
    const std::string text = (v4() ? "239.255.240." : "ff04:4817::") + std::to_string(n);
    return ResolveAddress(text.c_str(), "4817", {.numericHost = true}).value().address;
  }
  // How `address`, or for IPv6 `index`, names an interface to a socket.
  [[nodiscard]] std::uint32_t Interface(const char* address, std::uint32_t index) const {
    return v4() ? ParseIpv4(address) : index;
  }

  // A receiver of the host, for a group on one of the interfaces.
  [[nodiscard]] Socket Receiver(int group, std::uint32_t interfaceValue) const {
    return host_->Inside([&] {
      Socket socket = Socket::Create(GetParam(), SocketType::kDatagram);
      EXPECT_TRUE(socket.SetReuseAddress());
      EXPECT_TRUE(
          socket.Bind(v4() ? SocketAddress::Ipv4(0, kPort) : SocketAddress::Ipv6({}, 0, kPort)));
      EXPECT_TRUE(socket.JoinGroup(Group(group), interfaceValue));
      return socket;
    });
  }
  // What a device sends to a group.
  void Send(std::uint32_t interfaceValue, int group, const std::string& text) const {
    elsewhere_->Inside([&] {
      Socket socket = Socket::Create(GetParam(), SocketType::kDatagram);
      EXPECT_TRUE(socket.SetMulticastInterface(interfaceValue));
      EXPECT_EQ(socket.SendTo(std::as_bytes(std::span(text)), Group(group)), text.size());
    });
  }
  // Everything that `socket` receives up to the datagram "end".
  Texts Listen(Socket& socket) {
    Texts texts;
    std::array<std::byte, 1500> buffer;
    while (socket.WaitReadable(kGenerousMs) == WaitStatus::kSignalled) {
      std::size_t size = 0;
      SocketAddress source;
      if (socket.ReceiveFrom(buffer, size, source) != ReceiveStatus::kReceived) {
        ++passedOver_;
        continue;
      }
      texts.emplace_back(reinterpret_cast<const char*>(buffer.data()), size);
      if (texts.back() == "end") break;
    }
    return texts;
  }

  int passedOver_ = 0;  // datagrams that reached a socket but were not for it
  const std::uint32_t hostOne_ = Interface("10.0.1.1", 101);
  const std::uint32_t hostTwo_ = Interface("10.0.2.1", 102);
  const std::uint32_t deviceOne_ = Interface("10.0.1.2", 201);
  const std::uint32_t deviceTwo_ = Interface("10.0.2.2", 202);
};

TEST_P(Multicast, AReceiverHearsItsGroupOnItsInterfaceOnly) {
  Socket requests = Receiver(1, hostOne_);
  Socket one = Receiver(2, hostOne_);
  Socket two = Receiver(2, hostTwo_);
  Send(deviceOne_, 1, "request");
  Send(deviceOne_, 2, "on one");
  Send(deviceTwo_, 2, "on two");
  Send(deviceOne_, 1, "end");
  Send(deviceOne_, 2, "end");
  Send(deviceTwo_, 2, "end");
  EXPECT_EQ(Listen(requests), (Texts{"request", "end"}));
  EXPECT_EQ(passedOver_, 0) << "a storm of answers costs the receiver of requests nothing";
  EXPECT_EQ(Listen(one), (Texts{"on one", "end"}));
  EXPECT_EQ(Listen(two), (Texts{"on two", "end"}));
}

INSTANTIATE_TEST_SUITE_P(Families, Multicast,
                         ::testing::Values(AddressFamily::kIpv4, AddressFamily::kIpv6),
                         [](const auto& suite) {
                           return suite.param == AddressFamily::kIpv4 ? "Ipv4" : "Ipv6";
                         });

}  // namespace
}  // namespace talvorn::platform
