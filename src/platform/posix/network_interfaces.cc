#include "platform/network_interfaces.h"

#include <arpa/inet.h>
#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
// After net/if.h, whose flags it completes.
#include <linux/if.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>

#include "platform/incarnation.h"
#include "platform/posix/io.h"

namespace talvorn::platform {
namespace {

// The kernel answers at once; a limit all the same, since a thread waits here.
constexpr timeval kAnswerLimit{.tv_sec = 1, .tv_usec = 0};
// A dump during which something changed is asked for again.
constexpr int kDumpAttempts = 8;
// The kernel fills no more in one message.
constexpr std::size_t kDumpSize = 32 * 1024;
constexpr unsigned int kChangeGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;

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

using RouteSocket = std::unique_ptr<mnl_socket, int (*)(mnl_socket*)>;

// Null when the system refuses. Told of changes in `groups`.
RouteSocket OpenRouteSocket(unsigned int groups) {
  RouteSocket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC), mnl_socket_close);
  if (socket && mnl_socket_bind(socket.get(), groups, MNL_SOCKET_AUTOPID) != 0) socket.reset();
  return socket;
}

// The beginning of a message; null when that is shorter.
template <typename T>
const T* FixedPart(const nlmsghdr& message) {
  return mnl_nlmsg_get_payload_len(&message) < sizeof(T)
             ? nullptr
             : static_cast<const T*>(mnl_nlmsg_get_payload(&message));
}

template <typename T>
using Parse = std::optional<T> (*)(const nlmsghdr&);

// Asks once for a whole table. EINTR: there was a change meanwhile. Any other error but
// 0: the kernel does not tell.
template <typename T>
int TryDump(std::uint16_t question, Parse<T> parse, std::vector<T>& rows) {
  const RouteSocket socket = OpenRouteSocket(0);
  if (!socket) return errno;
  (void)setsockopt(mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &kAnswerLimit,
                   sizeof(kAnswerLimit));
  alignas(nlmsghdr) std::array<char, kDumpSize> buffer;
  nlmsghdr* const header = mnl_nlmsg_put_header(buffer.data());
  header->nlmsg_type = question;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  mnl_nlmsg_put_extra_header(header, sizeof(rtgenmsg));
  if (mnl_socket_sendto(socket.get(), header, header->nlmsg_len) < 0) return errno;
  for (bool changed = false;;) {
    int size = static_cast<int>(
        Retried([&] { return mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size()); }));
    if (size < 0) return errno;
    for (const nlmsghdr* message = header; mnl_nlmsg_ok(message, size);
         message = mnl_nlmsg_next(message, &size)) {
      changed = changed || (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
      if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) {
        const int* const error = FixedPart<int>(*message);
        if (error != nullptr && *error != 0) return -*error;
        return changed ? EINTR : 0;
      }
      if (auto row = parse(*message)) rows.push_back(*row);
    }
  }
}

// Every row that `parse` gives of a table; none when the kernel does not tell.
template <typename T>
std::optional<std::vector<T>> Dump(std::uint16_t question, Parse<T> parse) {
  for (int attempt = 0; attempt < kDumpAttempts; ++attempt) {
    std::vector<T> rows;
    const int error = TryDump(question, parse, rows);
    if (error == 0) return rows;
    if (error != EINTR && error != ENOBUFS) break;
  }
  return std::nullopt;
}

using Attributes = std::array<const nlattr*, IFA_MAX + 1>;

int Keep(const nlattr* attribute, void* attributes) {
  const std::uint16_t type = mnl_attr_get_type(attribute);
  if (type <= IFA_MAX) (*static_cast<Attributes*>(attributes))[type] = attribute;
  return MNL_CB_OK;
}

// The first `size` bytes of the attribute; false when it is missing or shorter.
template <typename T>
bool Read(const nlattr* attribute, T& value, std::size_t size = sizeof(T)) {
  if (attribute == nullptr || mnl_attr_get_payload_len(attribute) < size) return false;
  std::memcpy(&value, mnl_attr_get_payload(attribute), size);
  return true;
}

std::optional<Link> ParseLink(const nlmsghdr& message) {
  const auto* const link = FixedPart<ifinfomsg>(message);
  if (link == nullptr || link->ifi_index <= 0) return std::nullopt;
  return Link{static_cast<std::uint32_t>(link->ifi_index), link->ifi_flags};
}

std::optional<Address> ParseAddress(const nlmsghdr& message) {
  const auto* const fixed = FixedPart<ifaddrmsg>(message);
  if (fixed == nullptr || (fixed->ifa_family != AF_INET && fixed->ifa_family != AF_INET6))
    return std::nullopt;
  Address address{.family = fixed->ifa_family,
                  .prefixLength = fixed->ifa_prefixlen,
                  .index = fixed->ifa_index,
                  .flags = fixed->ifa_flags};
  Attributes attributes{};
  (void)mnl_attr_parse(&message, sizeof(*fixed), &Keep, &attributes);
  (void)Read(attributes[IFA_BROADCAST], address.broadcast);
  (void)Read(attributes[IFA_FLAGS], address.flags);
  ifa_cacheinfo times{};
  if (Read(attributes[IFA_CACHEINFO], times)) address.created = times.cstamp;
  // On a point-to-point link IFA_ADDRESS is the peer's.
  const std::size_t size = fixed->ifa_family == AF_INET ? 4 : 16;
  const bool any = Read(attributes[IFA_LOCAL], address.local, size) ||
                   Read(attributes[IFA_ADDRESS], address.local, size);
  return any ? std::optional(address) : std::nullopt;
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
  std::vector<Link> links;
};

// Without the addresses of links that carry no multicast (tunnels, for instance); loopback is
// always listed.
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

// A thread that has moved to another network has a number from before.
ino_t NetworkOfThisThread() {
  struct stat status {};
  (void)stat("/proc/thread-self/ns/net", &status);
  return status.st_ino;
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
    auto links = Dump(RTM_GETLINK, &ParseLink);
    auto addresses = links ? Dump(RTM_GETADDR, &ParseAddress) : std::nullopt;
    if (!addresses) return nullptr;
    return std::make_shared<const Tables>(Tables{Ipv4Rows(*links, *addresses),
                                                 Ipv6Adapters(*links, *addresses),
                                                 std::move(*addresses), std::move(*links)});
  }

  // Whether anything was told, or lost for want of room. Subscribes before the first read.
  bool HasChanged() {
    thread_local const ino_t network = NetworkOfThisThread();
    if (std::exchange(network_, network) != network) changes_.reset();
    bool any = !changes_;
    if (!changes_) changes_ = OpenRouteSocket(kChangeGroups);
    while (changes_) {
      if (recv(mnl_socket_get_fd(changes_.get()), nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) < 0) {
        if (errno == EAGAIN) break;
        if (errno != EINTR && errno != ENOBUFS) changes_.reset();
      }
      any = true;
    }
    return any;
  }

  std::mutex mutex_;
  std::shared_ptr<const Tables> kept_;
  RouteSocket changes_{nullptr, mnl_socket_close};  // in this network:
  ino_t network_ = 0;
};

std::shared_ptr<const Tables> CurrentTables() {
  // Never destroyed: threads may ask until the process has gone.
  static KeptTables& tables = *new KeptTables;
  return tables.Get();
}

// What the kernel tells of group memberships in texts only.
std::map<std::uint32_t, std::vector<HostAddress>> JoinedGroups() {
  std::map<std::uint32_t, std::vector<HostAddress>> groups;
  std::string line;
  std::uint32_t index = 0;
  // A line for each interface, "2<TAB>eth0 : 1 V3", and behind it one for each of its groups,
  // "<TAB><TAB>010000E0 1 0:00000000".
  for (std::ifstream table("/proc/thread-self/net/igmp"); std::getline(table, line);) {
    std::istringstream words(line);
    std::uint32_t number = 0;
    if (!line.starts_with('\t')) {
      index = words >> number ? number : 0;
    } else if (words >> std::hex >> number) {
      groups[index].push_back(HostAddress::Ipv4(number));
    }
  }
  // "2 eth0 ff020000000000000000000000000001 1 0000000C 0"
  for (std::ifstream table("/proc/thread-self/net/igmp6"); std::getline(table, line);) {
    std::istringstream words(line);
    std::string name;
    std::string digits;
    std::array<std::uint8_t, 16> bytes{};
    if (!(words >> index >> name >> digits) || digits.size() != 2 * bytes.size()) continue;
    for (std::size_t i = 0; i < bytes.size(); ++i)
      (void)std::from_chars(&digits[2 * i], &digits[2 * i] + 2, bytes[i], 16);
    groups[index].push_back(HostAddress::Ipv6(bytes, 0));
  }
  return groups;
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

std::vector<InterfaceDescription> DescribeInterfaces() {
  std::vector<InterfaceDescription> descriptions;
  const auto tables = CurrentTables();
  if (!tables) return descriptions;
  auto groups = JoinedGroups();
  for (const Link& link : tables->links) {
    std::array<char, IF_NAMESIZE> name{};
    if (if_indextoname(link.index, name.data()) == nullptr) continue;  // gone meanwhile
    descriptions.push_back({.index = link.index,
                            .name = name.data(),
                            .up = link.up(),
                            .multicast = link.multicast(),
                            .loopback = link.loopback(),
                            .groups = std::move(groups[link.index])});
  }
  return descriptions;
}

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
