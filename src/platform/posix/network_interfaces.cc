#include "platform/network_interfaces.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
// After net/if.h, whose flags it completes.
#include <linux/if.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>
#include <new>
#include <set>
#include <span>
#include <tuple>
#include <utility>

#include "platform/incarnation.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/wait.h"

namespace talvorn::platform {
namespace {

// The kernel answers at once; a limit all the same, since a thread waits here.
constexpr std::uint32_t kAnswerLimitMs = 1000;
// A dump during which something changed is asked for again.
constexpr int kDumpAttempts = 8;
constexpr std::size_t kFirstBufferSize = 32 * 1024;
constexpr std::size_t kLargestBufferSize = 4 * 1024 * 1024;

struct Link {
  std::uint32_t index = 0;
  std::uint32_t flags = 0;

  // Switched on, with carrier, and not held back by what runs on top of the link
  // (RUNNING stands for the operational states "up" and "unknown").
  [[nodiscard]] bool up() const {
    constexpr std::uint32_t kUp = IFF_UP | IFF_RUNNING | IFF_LOWER_UP;
    return (flags & kUp) == kUp;
  }
  [[nodiscard]] bool loopback() const { return (flags & IFF_LOOPBACK) != 0; }
  [[nodiscard]] bool multicast() const { return (flags & IFF_MULTICAST) != 0; }
};

struct Address {
  std::uint8_t family = 0;
  std::uint8_t prefixLength = 0;
  std::uint32_t index = 0;
  std::uint32_t flags = 0;
  std::uint32_t created = 0;  // in hundredths of a second
  std::array<std::uint8_t, 16> local{};
  std::uint32_t broadcast = 0;

  [[nodiscard]] std::uint32_t ipv4() const {
    std::uint32_t value = 0;
    std::memcpy(&value, local.data(), sizeof(value));
    return value;
  }
  [[nodiscard]] bool usable() const { return (flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0; }
};

// Calls `each(type, content)` for the attributes in `bytes`.
template <typename Each>
void ForEachAttribute(std::span<const std::byte> bytes, Each&& each) {
  while (bytes.size() >= sizeof(rtattr)) {
    rtattr header{};
    std::memcpy(&header, bytes.data(), sizeof(header));
    if (header.rta_len < sizeof(rtattr) || header.rta_len > bytes.size()) return;
    each(header.rta_type & NLA_TYPE_MASK,
         bytes.subspan(sizeof(rtattr), header.rta_len - sizeof(rtattr)));
    bytes = bytes.subspan(std::min<std::size_t>(RTA_ALIGN(header.rta_len), bytes.size()));
  }
}

template <typename T>
bool Read(std::span<const std::byte> bytes, T& value) {
  if (bytes.size() < sizeof(T)) return false;
  std::memcpy(&value, bytes.data(), sizeof(T));
  return true;
}

// One question to the kernel for a whole table.
class Dump {
 public:
  // Calls `each(payload)` for every message of `answerType`; what it collects
  // counts only if the result is true. `restart` empties what it has collected.
  template <typename Restart, typename Each>
  static bool Run(std::uint16_t question, std::uint16_t answerType, std::uint8_t family,
                  Restart&& restart, Each&& each) {
    std::size_t bufferSize = kFirstBufferSize;
    for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
      restart();
      std::vector<std::byte> buffer(bufferSize);
      switch (Dump(buffer).Attempt(question, answerType, family, each)) {
        case Outcome::kComplete:
          return true;
        case Outcome::kAgain:
          break;
        case Outcome::kLargerBuffer:
          if (bufferSize < kLargestBufferSize) bufferSize *= 2;
          break;
        case Outcome::kFailed:
          return false;
      }
    }
    return false;
  }

 private:
  enum class Outcome { kComplete, kAgain, kLargerBuffer, kFailed };

  explicit Dump(std::span<std::byte> buffer) : buffer_(buffer) {}

  template <typename Each>
  Outcome Attempt(std::uint16_t question, std::uint16_t answerType, std::uint8_t family,
                  Each&& each) {
    if (!Ask(question, family)) return Outcome::kFailed;
    for (;;) {
      std::span<const std::byte> bytes;
      const Outcome received = Receive(bytes);
      if (received != Outcome::kComplete) return received;
      nlmsghdr header{};
      while (Read(bytes, header) && header.nlmsg_len >= sizeof(header) &&
             header.nlmsg_len <= bytes.size()) {
        const auto payload = bytes.subspan(NLMSG_HDRLEN, header.nlmsg_len - NLMSG_HDRLEN);
        bytes = bytes.subspan(std::min<std::size_t>(NLMSG_ALIGN(header.nlmsg_len), bytes.size()));
        if (header.nlmsg_seq != kSequence) continue;
        if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) changed_ = true;
        if (header.nlmsg_type == NLMSG_DONE) return Finish(payload);
        if (header.nlmsg_type == NLMSG_ERROR) return Outcome::kFailed;
        if (header.nlmsg_type == answerType) each(payload);
      }
    }
  }

  bool Ask(std::uint16_t question, std::uint8_t family) {
    struct {
      nlmsghdr header;
      rtgenmsg body;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(request.body));
    request.header.nlmsg_type = question;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = kSequence;
    request.body.rtgen_family = family;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return socket_.valid() &&
           sendto(socket_.get(), &request, request.header.nlmsg_len, MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&kernel), sizeof(kernel)) >= 0;
  }

  // The next batch of messages, kComplete when there is one.
  Outcome Receive(std::span<const std::byte>& bytes) {
    for (;;) {
      if (WaitForDescriptor(socket_.get(), POLLIN, kAnswerLimitMs) != WaitStatus::kSignalled) {
        return Outcome::kFailed;
      }
      sockaddr_nl from{};
      iovec part{buffer_.data(), buffer_.size()};
      msghdr message{};
      message.msg_name = &from;
      message.msg_namelen = sizeof(from);
      message.msg_iov = &part;
      message.msg_iovlen = 1;
      const ssize_t received = recvmsg(socket_.get(), &message, 0);
      if (received < 0) {
        if (errno == EINTR || errno == EAGAIN) continue;
        return errno == ENOBUFS ? Outcome::kAgain : Outcome::kFailed;
      }
      if (from.nl_pid != 0) continue;  // not from the kernel
      if ((message.msg_flags & MSG_TRUNC) != 0) return Outcome::kLargerBuffer;
      if (received == 0) return Outcome::kFailed;
      bytes = buffer_.first(static_cast<std::size_t>(received));
      return Outcome::kComplete;
    }
  }

  [[nodiscard]] Outcome Finish(std::span<const std::byte> payload) const {
    int error = 0;
    if (Read(payload, error) && error < 0) return Outcome::kFailed;
    return changed_ ? Outcome::kAgain : Outcome::kComplete;
  }

  // Each question has a socket of its own, so that any number does.
  static constexpr std::uint32_t kSequence = 1;

  Descriptor socket_{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)};
  std::span<std::byte> buffer_;
  bool changed_ = false;
};

std::optional<std::vector<Link>> QueryLinks() {
  std::vector<Link> links;
  const bool complete = Dump::Run(
      RTM_GETLINK, RTM_NEWLINK, AF_UNSPEC, [&] { links.clear(); },
      [&](std::span<const std::byte> payload) {
        ifinfomsg message{};
        if (!Read(payload, message) || message.ifi_index <= 0) return;
        links.push_back({static_cast<std::uint32_t>(message.ifi_index), message.ifi_flags});
      });
  if (!complete) return std::nullopt;
  return links;
}

std::optional<Address> ParseAddress(std::span<const std::byte> payload) {
  ifaddrmsg message{};
  if (!Read(payload, message)) return std::nullopt;
  Address address;
  address.family = message.ifa_family;
  address.prefixLength = message.ifa_prefixlen;
  address.index = message.ifa_index;
  address.flags = message.ifa_flags;
  const std::size_t size = message.ifa_family == AF_INET ? 4 : 16;
  bool hasLocal = false;
  bool hasAny = false;
  const auto attributes =
      payload.subspan(std::min<std::size_t>(NLMSG_ALIGN(sizeof(message)), payload.size()));
  ForEachAttribute(attributes, [&](int type, std::span<const std::byte> content) {
    switch (type) {
      case IFA_LOCAL:
      case IFA_ADDRESS:
        // On a point-to-point link IFA_ADDRESS is the peer's.
        if (content.size() < size || (type == IFA_ADDRESS && hasLocal)) break;
        std::memcpy(address.local.data(), content.data(), size);
        hasLocal = hasLocal || type == IFA_LOCAL;
        hasAny = true;
        break;
      case IFA_BROADCAST:
        (void)Read(content, address.broadcast);
        break;
      case IFA_FLAGS:
        (void)Read(content, address.flags);
        break;
      case IFA_CACHEINFO: {
        ifa_cacheinfo info{};
        if (Read(content, info)) address.created = info.cstamp;
        break;
      }
      default:
        break;
    }
  });
  if (!hasAny) return std::nullopt;
  return address;
}

std::optional<std::vector<Address>> QueryAddresses(std::uint8_t family) {
  std::vector<Address> addresses;
  const bool complete = Dump::Run(
      RTM_GETADDR, RTM_NEWADDR, family, [&] { addresses.clear(); },
      [&](std::span<const std::byte> payload) {
        const auto address = ParseAddress(payload);
        if (address && address->family == family) addresses.push_back(*address);
      });
  if (!complete) return std::nullopt;
  return addresses;
}

std::uint32_t MaskOf(std::uint8_t prefixLength) {
  if (prefixLength == 0) return 0;
  return htonl(~std::uint32_t{0} << (32 - std::min<std::uint8_t>(prefixLength, 32)));
}

// Of the IPv6 addresses that one interface has. IPv6 that was taken from an interface
// and given back leaves none that is as old as the oldest one was.
struct Ipv6State {
  bool usable = false;
  std::uint32_t created = ~std::uint32_t{0};  // the oldest
  std::vector<HostAddress> addresses;
};

std::map<std::uint32_t, Ipv6State> ByInterface(const std::vector<Address>& addresses) {
  std::map<std::uint32_t, Ipv6State> interfaces;
  for (const Address& address : addresses) {
    Ipv6State& state = interfaces[address.index];
    state.usable = state.usable || address.usable();
    state.created = std::min(state.created, address.created);
    state.addresses.push_back(HostAddress::Ipv6(address.local, address.index));
  }
  return interfaces;
}

}  // namespace

std::optional<std::vector<Ipv4AddressRow>> QueryIpv4AddressTable() {
  try {
    const auto links = QueryLinks();
    const auto addresses = links ? QueryAddresses(AF_INET) : std::nullopt;
    if (!addresses) return std::nullopt;

    // A link without multicast (a tunnel, for instance) can carry neither requests
    // nor answers, so its addresses are none that anybody could use. Loopback is
    // always listed, as it is in every such table.
    std::set<std::uint32_t> listed;
    for (const Link& link : *links) {
      if (link.up() && (link.multicast() || link.loopback())) listed.insert(link.index);
    }

    std::vector<Ipv4AddressRow> rows;
    for (const Address& address : *addresses) {
      if (!listed.contains(address.index)) continue;
      const bool primary = (address.flags & IFA_F_SECONDARY) == 0;
      rows.push_back({.address = address.ipv4(),
                      .interfaceIndex = address.index,
                      .mask = MaskOf(address.prefixLength),
                      .broadcastAddress = address.broadcast,
                      .type = primary ? kIpv4AddressPrimary : std::uint16_t{0},
                      .incarnation = Incarnation(address.index, address.created)});
    }
    std::sort(rows.begin(), rows.end(), [](const Ipv4AddressRow& a, const Ipv4AddressRow& b) {
      return std::tuple(ntohl(a.address), a.interfaceIndex, a.mask) <
             std::tuple(ntohl(b.address), b.interfaceIndex, b.mask);
    });
    return rows;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::optional<std::vector<Ipv6Adapter>> QueryIpv6Adapters() {
  try {
    const auto links = QueryLinks();
    const auto addresses = links ? QueryAddresses(AF_INET6) : std::nullopt;
    if (!addresses) return std::nullopt;

    auto interfaces = ByInterface(*addresses);
    std::vector<Ipv6Adapter> adapters;
    for (const Link& link : *links) {
      Ipv6State& state = interfaces[link.index];
      adapters.push_back(
          {.ipv6IfIndex = link.index,
           .flags = (state.usable ? kAdapterIpv6Enabled : 0) |
                    (link.multicast() ? 0 : kAdapterNoMulticast),
           .operStatus = link.up() ? kOperStatusUp : kOperStatusDown,
           .ifType = link.loopback() ? kIfTypeSoftwareLoopback : kIfTypeEthernet,
           .incarnation = state.addresses.empty() ? 0 : Incarnation(link.index, state.created),
           .addresses = std::move(state.addresses)});
    }
    return adapters;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::uint32_t InterfaceIndexFromName(const char* name) { return if_nametoindex(name); }

InterfaceAddresses QueryInterfaceAddresses(std::uint32_t interfaceIndex) {
  InterfaceAddresses result;
  try {
    if (const auto addresses = QueryAddresses(AF_INET)) {
      for (const Address& address : *addresses) {
        if (address.index == interfaceIndex) result.ipv4.push_back(address.ipv4());
      }
    }
    if (const auto addresses = QueryAddresses(AF_INET6)) {
      for (const Address& address : *addresses) {
        if (address.index != interfaceIndex) continue;
        if (address.usable()) {
          result.ipv6.push_back(address.local);
        } else if ((address.flags & IFA_F_DADFAILED) == 0) {
          result.ipv6Pending = true;
        }
      }
    }
  } catch (const std::bad_alloc&) {
    // What was found so far.
  }
  return result;
}

}  // namespace talvorn::platform
