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
#include <memory>
#include <mutex>
#include <span>
#include <tuple>
#include <utility>

#include "platform/incarnation.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/wait.h"

#ifndef SO_NETNS_COOKIE
#define SO_NETNS_COOKIE 71  // since Linux 5.14
#endif

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

Descriptor MakeRouteSocket() {
  return Descriptor(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
}

// One question to the kernel for a whole table.
class Dump {
 public:
  // Every row that `parse(payload)` gives for a message of `answerType`; none when the
  // kernel does not tell.
  template <typename Row>
  static std::optional<std::vector<Row>> Run(
      std::uint16_t question, std::uint16_t answerType,
      std::optional<Row> (*parse)(std::span<const std::byte>)) {
    std::size_t bufferSize = kFirstBufferSize;
    for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
      std::vector<Row> rows;
      std::vector<std::byte> buffer(bufferSize);
      const auto keep = [&](std::span<const std::byte> payload) {
        if (auto row = parse(payload)) rows.push_back(*row);
      };
      switch (Dump(buffer).Attempt(question, answerType, keep)) {
        case Outcome::kComplete:
          return rows;
        case Outcome::kAgain:
          break;
        case Outcome::kLargerBuffer:
          if (bufferSize < kLargestBufferSize) bufferSize *= 2;
          break;
        case Outcome::kFailed:
          return std::nullopt;
      }
    }
    return std::nullopt;
  }

 private:
  enum class Outcome { kComplete, kAgain, kLargerBuffer, kFailed };

  explicit Dump(std::span<std::byte> buffer) : buffer_(buffer) {}

  template <typename Each>
  Outcome Attempt(std::uint16_t question, std::uint16_t answerType, const Each& each) {
    if (!Ask(question)) return Outcome::kFailed;
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

  bool Ask(std::uint16_t question) {
    struct {
      nlmsghdr header;
      rtgenmsg body;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(request.body));
    request.header.nlmsg_type = question;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = kSequence;
    request.body.rtgen_family = AF_UNSPEC;
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

  Descriptor socket_ = MakeRouteSocket();
  std::span<std::byte> buffer_;
  bool changed_ = false;
};

std::optional<Link> ParseLink(std::span<const std::byte> payload) {
  ifinfomsg message{};
  if (!Read(payload, message) || message.ifi_index <= 0) return std::nullopt;
  return Link{static_cast<std::uint32_t>(message.ifi_index), message.ifi_flags};
}

std::optional<Address> ParseAddress(std::span<const std::byte> payload) {
  ifaddrmsg message{};
  if (!Read(payload, message)) return std::nullopt;
  if (message.ifa_family != AF_INET && message.ifa_family != AF_INET6) return std::nullopt;
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

// What there is, in the forms in which it is asked for.
struct Tables {
  std::vector<Ipv4AddressRow> ipv4;  // sorted by address
  std::vector<Ipv6Adapter> ipv6;
  std::vector<Address> addresses;
};

// A link without multicast (a tunnel, for instance) can carry neither requests nor
// answers, so its addresses are none that anybody could use. Loopback is always listed,
// as it is in every such table.
std::vector<Ipv4AddressRow> Ipv4Rows(const std::vector<Link>& links,
                                     const std::vector<Address>& addresses) {
  std::map<std::uint32_t, bool> listed;
  for (const Link& link : links)
    listed[link.index] = link.up() && (link.multicast() || link.loopback());
  std::vector<Ipv4AddressRow> rows;
  for (const Address& address : addresses) {
    if (address.family != AF_INET || !listed[address.index]) continue;
    const bool primary = (address.flags & IFA_F_SECONDARY) == 0;
    rows.push_back({.address = address.ipv4(),
                    .interfaceIndex = address.index,
                    .mask = MaskOf(address.prefixLength),
                    .broadcastAddress = address.broadcast,
                    .type = primary ? kIpv4AddressPrimary : std::uint16_t{0},
                    .incarnation = Incarnation(address.index, address.created)});
  }
  std::ranges::sort(rows, {}, [](const Ipv4AddressRow& row) {
    return std::tuple(ntohl(row.address), row.interfaceIndex, row.mask);
  });
  return rows;
}

std::vector<Ipv6Adapter> Ipv6Adapters(const std::vector<Link>& links,
                                      const std::vector<Address>& addresses) {
  std::map<std::uint32_t, Ipv6State> interfaces;
  for (const Address& address : addresses) {
    if (address.family != AF_INET6) continue;
    Ipv6State& state = interfaces[address.index];
    state.usable = state.usable || address.usable();
    state.created = std::min(state.created, address.created);
    state.addresses.push_back(HostAddress::Ipv6(address.local, address.index));
  }
  std::vector<Ipv6Adapter> adapters;
  for (const Link& link : links) {
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
}

// The tables as they were read last, for as long as the kernel tells of no change.
class KeptTables {
 public:
  // Those of the calling thread's network. Null when the kernel does not tell.
  std::shared_ptr<const Tables> Get() {
    const std::lock_guard lock(mutex_);
    if (HasChanged()) kept_.reset();
    if (!kept_) kept_ = ReadTables();
    return kept_;
  }

 private:
  static std::shared_ptr<const Tables> ReadTables() {
    const auto links = Dump::Run(RTM_GETLINK, RTM_NEWLINK, &ParseLink);
    auto addresses = links ? Dump::Run(RTM_GETADDR, RTM_NEWADDR, &ParseAddress) : std::nullopt;
    if (!addresses) return nullptr;
    return std::make_shared<const Tables>(Tables{
        Ipv4Rows(*links, *addresses), Ipv6Adapters(*links, *addresses), std::move(*addresses)});
  }

  // Whether there may have been a change. Subscribes where that is to be done, before
  // anything is read.
  bool HasChanged() {
    Descriptor here = MakeRouteSocket();
    std::uint64_t network = 0;
    socklen_t size = sizeof(network);
    if (getsockopt(here.get(), SOL_SOCKET, SO_NETNS_COOKIE, &network, &size) != 0) return true;
    if (changes_.valid() && network == network_) return TakeChanges();
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (bind(here.get(), reinterpret_cast<const sockaddr*>(&groups), sizeof(groups)) != 0)
      here.Close();
    changes_ = std::move(here);
    network_ = network;
    return true;
  }

  // Whether anything was told, or lost for want of room.
  bool TakeChanges() {
    for (bool any = false;; any = true) {
      if (recv(changes_.get(), nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) >= 0) continue;
      if (errno == EAGAIN) return any;
      if (errno != EINTR && errno != ENOBUFS) changes_.Close();
      if (!changes_.valid()) return true;
    }
  }

  std::mutex mutex_;
  std::shared_ptr<const Tables> kept_;
  Descriptor changes_;  // the kernel's notes of changes in this network:
  std::uint64_t network_ = 0;
};

std::shared_ptr<const Tables> CurrentTables() {
  // Never destroyed: threads may ask until the process has gone.
  static KeptTables& tables = *new KeptTables;
  return tables.Get();
}

}  // namespace

std::optional<std::vector<Ipv4AddressRow>> QueryIpv4AddressTable() {
  const auto tables = CurrentTables();
  return tables ? std::optional(tables->ipv4) : std::nullopt;
}

std::uint32_t InterfaceOfIpv4Address(std::uint32_t address) {
  const auto tables = CurrentTables();
  if (!tables) return 0;
  const auto row = std::ranges::find(tables->ipv4, address, &Ipv4AddressRow::address);
  return row == tables->ipv4.end() ? 0 : row->interfaceIndex;
}

std::optional<std::vector<Ipv6Adapter>> QueryIpv6Adapters() {
  const auto tables = CurrentTables();
  return tables ? std::optional(tables->ipv6) : std::nullopt;
}

std::uint32_t InterfaceIndexFromName(const char* name) { return if_nametoindex(name); }

InterfaceAddresses QueryInterfaceAddresses(std::uint32_t interfaceIndex) {
  InterfaceAddresses result;
  const auto tables = CurrentTables();
  if (!tables) return result;
  for (const Address& address : tables->addresses) {
    if (address.index != interfaceIndex) continue;
    if (address.family == AF_INET) {
      result.ipv4.push_back(address.ipv4());
    } else if (address.usable()) {
      result.ipv6.push_back(address.local);
    } else if ((address.flags & IFA_F_DADFAILED) == 0) {
      result.ipv6Pending = true;
    }
  }
  return result;
}

}  // namespace talvorn::platform
