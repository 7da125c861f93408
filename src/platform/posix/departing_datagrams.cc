#include "platform/departing_datagrams.h"

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "platform/posix/descriptor.h"
#include "platform/posix/io.h"

namespace talvorn::platform {
namespace {

constexpr std::size_t kIpv6HeaderSize = 40;
constexpr std::size_t kUdpHeaderSize = 8;

// In the kernel, so that this program is not woken for everything that the machine sends. The
// packet begins with its IP header.
std::array<sock_filter, 16> FilterFor(std::uint16_t port) {
  constexpr auto kAuxiliary = static_cast<std::uint32_t>(SKF_AD_OFF);
  constexpr std::uint32_t kAll = 0xFFFFFFFF;
  return {{
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kAuxiliary + SKF_AD_PKTTYPE),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 0, 12),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, kAuxiliary + SKF_AD_PROTOCOL),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IPV6, 6, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 9),
      // Version 4: the protocol, and the port behind a header of variable size.
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 7),
      BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
      BPF_STMT(BPF_LD | BPF_H | BPF_IND, 2),
      BPF_JUMP(BPF_JMP | BPF_JA, 3, 0, 0),
      // Version 6.
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 6),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 2),
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, kIpv6HeaderSize + 2),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, port, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, 0),
      BPF_STMT(BPF_RET | BPF_K, kAll),
  }};
}

Descriptor WatchPort(std::uint16_t port) {
  // Of no protocol at first, so that nothing comes in before the filter is there.
  Descriptor watch(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!watch.valid()) return {};
  std::array<sock_filter, 16> instructions = FilterFor(port);
  const sock_fprog filter{.len = static_cast<unsigned short>(instructions.size()),
                          .filter = instructions.data()};
  if (setsockopt(watch.get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0) return {};
  sockaddr_ll everything{};
  everything.sll_family = AF_PACKET;
  everything.sll_protocol = htons(ETH_P_ALL);  // none but this one shows what departs
  if (bind(watch.get(), reinterpret_cast<const sockaddr*>(&everything), sizeof everything) != 0)
    return {};
  return watch;
}

// What is behind the headers; empty when that is not all there.
std::span<const std::byte> PayloadOf(std::span<const std::byte> packet) {
  if (packet.empty()) return {};
  const auto first = std::to_integer<unsigned int>(packet[0]);
  const std::size_t header = first >> 4 == 4 ? (first & 0x0F) * 4U : kIpv6HeaderSize;
  return packet.subspan(std::min(packet.size(), header + kUdpHeaderSize));
}

std::string InterfaceName(int index) {
  std::array<char, IF_NAMESIZE> name{};
  return if_indextoname(static_cast<unsigned int>(index), name.data()) == nullptr ? std::string()
                                                                                  : name.data();
}

}  // namespace

struct DepartingDatagrams::State {
  Descriptor watch;
};

DepartingDatagrams::DepartingDatagrams(std::uint16_t port) {
  if (Descriptor watch = WatchPort(port); watch.valid())
    state_ = std::make_unique<State>(State{std::move(watch)});
}

DepartingDatagrams::~DepartingDatagrams() = default;

std::vector<DepartingDatagram> DepartingDatagrams::Take() {
  std::vector<DepartingDatagram> taken;
  if (!valid()) return taken;
  std::array<std::byte, 2'048> packet;
  for (;;) {
    sockaddr_ll where{};
    socklen_t size = sizeof where;
    const ssize_t length = Retried([&] {
      return recvfrom(state_->watch.get(), packet.data(), packet.size(), 0,
                      reinterpret_cast<sockaddr*>(&where), &size);
    });
    if (length < 0) return taken;
    const auto payload = PayloadOf(std::span(packet).first(static_cast<std::size_t>(length)));
    taken.push_back({InterfaceName(where.sll_ifindex), {payload.begin(), payload.end()}});
  }
}

}  // namespace talvorn::platform
