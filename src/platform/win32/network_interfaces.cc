#include "platform/network_interfaces.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/incarnation.h"
#include "platform/socket_common.h"
#include "platform/text_encoding.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// The adapter list may grow between the query for its size and the next.
constexpr int kQueryAttempts = 4;

// Calls `each` for every adapter; false when the query fails.
template <typename Each>
bool ForEachAdapter(ULONG family, ULONG flags, Each&& each) {
  for (int attempt = 0; attempt < kQueryAttempts; ++attempt) {
    ULONG size = 0;
    (void)GetAdaptersAddresses(family, flags, nullptr, nullptr, &size);
    if (size == 0) return false;
    std::vector<std::byte> buffer(size);
    auto* const first = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data());
    int error = 0;
    if (!FaultHits(Fault::kAdapterQuery, &error)) {
      error = static_cast<int>(GetAdaptersAddresses(family, flags, nullptr, first, &size));
    }
    if (error == ERROR_BUFFER_OVERFLOW) continue;
    if (error != NO_ERROR) return false;
    for (const auto* adapter = first; adapter != nullptr; adapter = adapter->Next) each(*adapter);
    return true;
  }
  return false;
}

// Both families share the index; an adapter without IPv4 has IfIndex 0.
std::uint32_t IndexOf(const IP_ADAPTER_ADDRESSES& adapter) {
  return adapter.IfIndex != 0 ? adapter.IfIndex : adapter.Ipv6IfIndex;
}

std::string NameOf(const IP_ADAPTER_ADDRESSES& adapter) {
  return adapter.FriendlyName == nullptr
             ? std::string()
             : WideToUtf8(FromNative(adapter.FriendlyName, std::wcslen(adapter.FriendlyName)));
}

constexpr ULONG kNamesOnly = GAA_FLAG_SKIP_UNICAST | GAA_FLAG_SKIP_ANYCAST |
                             GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
constexpr ULONG kNamesAndGroups =
    GAA_FLAG_SKIP_UNICAST | GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_DNS_SERVER;
constexpr ULONG kUnicastOnly = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST |
                               GAA_FLAG_SKIP_DNS_SERVER | GAA_FLAG_SKIP_FRIENDLY_NAME;

std::array<std::uint8_t, 16> BytesOf(const in6_addr& address) {
  std::array<std::uint8_t, 16> bytes{};
  std::memcpy(bytes.data(), &address, bytes.size());
  return bytes;
}

// Calls `each` for every unicast address of a family; for none on failure.
template <typename Each>
void ForEachUnicastRow(ADDRESS_FAMILY family, Each&& each) {
  MIB_UNICASTIPADDRESS_TABLE* table = nullptr;
  if (GetUnicastIpAddressTable(family, &table) != NO_ERROR) return;
  const std::unique_ptr<void, decltype(&FreeMibTable)> owner(table, &FreeMibTable);
  for (const auto& row : std::span(table->Table, table->NumEntries)) each(row);
}

}  // namespace

std::optional<std::vector<Ipv4AddressRow>> QueryIpv4AddressTable() {
  ULONG size = 0;
  if (GetIpAddrTable(nullptr, &size, TRUE) != ERROR_INSUFFICIENT_BUFFER) return std::nullopt;
  std::vector<std::byte> buffer(std::max<std::size_t>(size, sizeof(MIB_IPADDRTABLE)));
  auto* const table = reinterpret_cast<MIB_IPADDRTABLE*>(buffer.data());
  if (GetIpAddrTable(table, &size, TRUE) != NO_ERROR) return std::nullopt;

  const std::size_t room =
      (buffer.size() - offsetof(MIB_IPADDRTABLE, table)) / sizeof(MIB_IPADDRROW);
  // When each address was given to each interface.
  std::map<std::pair<std::uint32_t, NET_IFINDEX>, LONGLONG> created;
  ForEachUnicastRow(AF_INET, [&](const MIB_UNICASTIPADDRESS_ROW& row) {
    created[{row.Address.Ipv4.sin_addr.s_addr, row.InterfaceIndex}] =
        row.CreationTimeStamp.QuadPart;
  });
  std::vector<Ipv4AddressRow> rows;
  for (std::size_t i = 0; i < std::min<std::size_t>(table->dwNumEntries, room); ++i) {
    const MIB_IPADDRROW& row = table->table[i];
    rows.push_back(
        {.address = row.dwAddr,
         .interfaceIndex = row.dwIndex,
         .mask = row.dwMask,
         .broadcastAddress = row.dwBCastAddr,
         .reassemblySize = row.dwReasmSize,
         .type = row.wType,
         .incarnation = Incarnation(
             row.dwIndex, static_cast<std::uint64_t>(created[{row.dwAddr, row.dwIndex}]))});
  }
  return rows;
}

std::uint32_t InterfaceOfIpv4Address(std::uint32_t address) {
  const auto rows = QueryIpv4AddressTable();
  if (!rows) return 0;
  const auto row = std::ranges::find(*rows, address, &Ipv4AddressRow::address);
  return row == rows->end() ? 0 : row->interfaceIndex;
}

std::optional<std::vector<Ipv6Adapter>> QueryIpv6Adapters() {
  constexpr ULONG kFlags = kNamesOnly | GAA_FLAG_SKIP_FRIENDLY_NAME;
  static_assert(kFlags == 0x2F);
  std::vector<Ipv6Adapter> adapters;
  if (!ForEachAdapter(AF_INET6, kFlags, [&](const IP_ADAPTER_ADDRESSES& adapter) {
        adapters.push_back({.ipv6IfIndex = adapter.Ipv6IfIndex,
                            .flags = adapter.Flags,
                            .operStatus = static_cast<std::uint32_t>(adapter.OperStatus),
                            .ifType = adapter.IfType});
      })) {
    return std::nullopt;
  }
  // When IPv6 is removed from an interface and added again, all addresses are younger than
  // the oldest one was.
  std::map<NET_IFINDEX, LONGLONG> oldest;
  ForEachUnicastRow(AF_INET6, [&](const MIB_UNICASTIPADDRESS_ROW& row) {
    const LONGLONG created = row.CreationTimeStamp.QuadPart;
    LONGLONG& first = oldest.try_emplace(row.InterfaceIndex, created).first->second;
    first = std::min(first, created);
    for (Ipv6Adapter& adapter : adapters) {
      if (adapter.ipv6IfIndex != row.InterfaceIndex) continue;
      adapter.incarnation = Incarnation(row.InterfaceIndex, static_cast<std::uint64_t>(first));
      adapter.addresses.push_back(
          HostAddress::Ipv6(BytesOf(row.Address.Ipv6.sin6_addr), row.InterfaceIndex));
    }
  });
  return adapters;
}

// By the name that Windows shows ("Ethernet 2") or by index.
std::uint32_t InterfaceIndexFromName(const char* name) {
  const std::string_view text(name);
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = error == std::errc{} && end == text.data() + text.size();
  std::uint32_t index = 0;
  const std::u16string wide = Utf8ToWide(text);
  (void)ForEachAdapter(AF_UNSPEC, kNamesOnly, [&](const IP_ADAPTER_ADDRESSES& adapter) {
    const bool meant = isNumber ? IndexOf(adapter) == number
                                : adapter.FriendlyName != nullptr &&
                                      lstrcmpiW(adapter.FriendlyName, ToNative(wide)) == 0;
    if (index == 0 && meant) index = IndexOf(adapter);
  });
  return index;
}

std::vector<InterfaceDescription> DescribeInterfaces() {
  std::vector<InterfaceDescription> descriptions;
  (void)ForEachAdapter(AF_UNSPEC, kNamesAndGroups, [&](const IP_ADAPTER_ADDRESSES& adapter) {
    InterfaceDescription one{.index = IndexOf(adapter),
                             .name = NameOf(adapter),
                             .up = adapter.OperStatus == IfOperStatusUp,
                             .multicast = (adapter.Flags & kAdapterNoMulticast) == 0,
                             .loopback = adapter.IfType == kIfTypeSoftwareLoopback};
    for (const auto* group = adapter.FirstMulticastAddress; group != nullptr; group = group->Next) {
      const SOCKET_ADDRESS& native = group->Address;
      HostAddress host =
          FromNative(native.lpSockaddr, static_cast<std::size_t>(native.iSockaddrLength)).host();
      host.scope = 0;
      one.groups.push_back(host);
    }
    descriptions.push_back(std::move(one));
  });
  return descriptions;
}

InterfaceAddresses QueryInterfaceAddresses(std::uint32_t interfaceIndex) {
  InterfaceAddresses result;
  (void)ForEachAdapter(AF_UNSPEC, kUnicastOnly, [&](const IP_ADAPTER_ADDRESSES& adapter) {
    if (IndexOf(adapter) != interfaceIndex) return;
    for (const auto* unicast = adapter.FirstUnicastAddress; unicast != nullptr;
         unicast = unicast->Next) {
      const SOCKET_ADDRESS& native = unicast->Address;
      const SocketAddress address =
          FromNative(native.lpSockaddr, static_cast<std::size_t>(native.iSockaddrLength));
      if (address.family() == AddressFamily::kIpv4) result.ipv4.push_back(address.ipv4());
      if (address.family() != AddressFamily::kIpv6) continue;
      if (unicast->DadState == IpDadStateTentative) result.ipv6Pending = true;
      if (unicast->DadState < IpDadStateDeprecated) continue;
      result.ipv6.push_back(BytesOf(As<sockaddr_in6>(address).sin6_addr));
    }
  });
  return result;
}

}  // namespace talvorn::platform
