#include "platform/network_interfaces.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/fault_injection.h"
#include "platform/incarnation.h"
#include "platform/text_encoding.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// A list of adapters may have grown between the question for its size and the next.
constexpr int kQueryAttempts = 4;

// The size first, the content next.
std::optional<std::vector<std::byte>> QueryAdapters(ULONG family, ULONG flags) {
  for (int attempt = 0; attempt < kQueryAttempts; ++attempt) {
    ULONG size = 0;
    (void)GetAdaptersAddresses(family, flags, nullptr, nullptr, &size);
    if (size == 0) break;
    std::vector<std::byte> buffer(size);
    auto* const first = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data());
    int error = 0;
    if (!FaultHits(Fault::kAdapterQuery, &error)) {
      error = static_cast<int>(GetAdaptersAddresses(family, flags, nullptr, first, &size));
    }
    if (error == NO_ERROR) return buffer;
    if (error != ERROR_BUFFER_OVERFLOW) break;
  }
  return std::nullopt;
}

// Calls `each` for every adapter with what `flags` do not skip; nothing on failure.
template <typename Each>
void ForEachAdapter(ULONG flags, Each&& each) {
  const auto adapters = QueryAdapters(AF_UNSPEC, flags);
  if (!adapters) return;
  for (const auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(adapters->data());
       adapter != nullptr; adapter = adapter->Next) {
    each(*adapter);
  }
}

// One index serves both families; an adapter without IPv4 has none for that.
std::uint32_t IndexOf(const IP_ADAPTER_ADDRESSES& adapter) {
  return adapter.IfIndex != 0 ? adapter.IfIndex : adapter.Ipv6IfIndex;
}

constexpr ULONG kNamesOnly = GAA_FLAG_SKIP_UNICAST | GAA_FLAG_SKIP_ANYCAST |
                             GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
constexpr ULONG kUnicastOnly = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST |
                               GAA_FLAG_SKIP_DNS_SERVER | GAA_FLAG_SKIP_FRIENDLY_NAME;

template <typename T>
const T* SocketAddressAs(const IP_ADAPTER_UNICAST_ADDRESS& address, int family) {
  const SOCKET_ADDRESS& native = address.Address;
  return native.lpSockaddr != nullptr && native.lpSockaddr->sa_family == family &&
                 native.iSockaddrLength >= static_cast<INT>(sizeof(T))
             ? reinterpret_cast<const T*>(native.lpSockaddr)
             : nullptr;
}

std::array<std::uint8_t, 16> BytesOf(const in6_addr& address) {
  std::array<std::uint8_t, 16> bytes{};
  std::memcpy(bytes.data(), &address, bytes.size());
  return bytes;
}

using UnicastTable = std::unique_ptr<MIB_UNICASTIPADDRESS_TABLE, decltype(&FreeMibTable)>;

// All addresses of a family; none when the system does not tell.
UnicastTable QueryUnicastTable(ADDRESS_FAMILY family) {
  MIB_UNICASTIPADDRESS_TABLE* table = nullptr;
  if (GetUnicastIpAddressTable(family, &table) != NO_ERROR) table = nullptr;
  return {table, &FreeMibTable};
}

std::span<const MIB_UNICASTIPADDRESS_ROW> RowsOf(const UnicastTable& table) {
  if (table == nullptr) return {};
  return {table->Table, table->NumEntries};
}

// Of the IPv6 addresses that one interface has. IPv6 that was taken from an interface
// and given back leaves none that is as old as the oldest one was.
struct Ipv6State {
  LONGLONG created = (std::numeric_limits<LONGLONG>::max)();  // the oldest
  std::vector<HostAddress> addresses;
};

std::map<NET_IFINDEX, Ipv6State> QueryIpv6States() {
  std::map<NET_IFINDEX, Ipv6State> interfaces;
  const UnicastTable table = QueryUnicastTable(AF_INET6);
  for (const MIB_UNICASTIPADDRESS_ROW& row : RowsOf(table)) {
    Ipv6State& state = interfaces[row.InterfaceIndex];
    state.created = std::min(state.created, row.CreationTimeStamp.QuadPart);
    state.addresses.push_back(
        HostAddress::Ipv6(BytesOf(row.Address.Ipv6.sin6_addr), row.InterfaceIndex));
  }
  return interfaces;
}

// The incarnation of each IPv4 address on each interface.
std::map<std::pair<std::uint32_t, NET_IFINDEX>, std::uint32_t> QueryIpv4Incarnations() {
  std::map<std::pair<std::uint32_t, NET_IFINDEX>, std::uint32_t> incarnations;
  const UnicastTable table = QueryUnicastTable(AF_INET);
  for (const MIB_UNICASTIPADDRESS_ROW& row : RowsOf(table)) {
    incarnations[{row.Address.Ipv4.sin_addr.s_addr, row.InterfaceIndex}] =
        Incarnation(row.InterfaceIndex, static_cast<std::uint64_t>(row.CreationTimeStamp.QuadPart));
  }
  return incarnations;
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
  const auto incarnations = QueryIpv4Incarnations();
  std::vector<Ipv4AddressRow> rows;
  for (std::size_t i = 0; i < std::min<std::size_t>(table->dwNumEntries, room); ++i) {
    const MIB_IPADDRROW& row = table->table[i];
    const auto incarnation = incarnations.find({row.dwAddr, row.dwIndex});
    rows.push_back({.address = row.dwAddr,
                    .interfaceIndex = row.dwIndex,
                    .mask = row.dwMask,
                    .broadcastAddress = row.dwBCastAddr,
                    .reassemblySize = row.dwReasmSize,
                    .type = row.wType,
                    .incarnation = incarnation == incarnations.end() ? Incarnation(row.dwIndex, 0)
                                                                     : incarnation->second});
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
  // Nothing but the adapters themselves.
  constexpr ULONG kFlags = kNamesOnly | GAA_FLAG_SKIP_FRIENDLY_NAME;
  static_assert(kFlags == 0x2F);
  const auto buffer = QueryAdapters(AF_INET6, kFlags);
  if (!buffer) return std::nullopt;
  auto interfaces = QueryIpv6States();
  std::vector<Ipv6Adapter> adapters;
  for (const auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(buffer->data());
       adapter != nullptr; adapter = adapter->Next) {
    Ipv6State& state = interfaces[adapter->Ipv6IfIndex];
    adapters.push_back({.ipv6IfIndex = adapter->Ipv6IfIndex,
                        .flags = adapter->Flags,
                        .operStatus = static_cast<std::uint32_t>(adapter->OperStatus),
                        .ifType = adapter->IfType,
                        .incarnation = state.addresses.empty()
                                           ? 0
                                           : Incarnation(adapter->Ipv6IfIndex,
                                                         static_cast<std::uint64_t>(state.created)),
                        .addresses = std::move(state.addresses)});
  }
  return adapters;
}

// By the name that Windows shows ("Ethernet 2"), or by its number.
std::uint32_t InterfaceIndexFromName(const char* name) {
  const std::string_view text(name);
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = error == std::errc{} && end == text.data() + text.size();
  std::uint32_t index = 0;
  const std::u16string wide = Utf8ToWide(text);
  ForEachAdapter(kNamesOnly, [&](const IP_ADAPTER_ADDRESSES& adapter) {
    const bool meant = isNumber ? IndexOf(adapter) == number
                                : adapter.FriendlyName != nullptr &&
                                      lstrcmpiW(adapter.FriendlyName, ToNative(wide)) == 0;
    if (index == 0 && meant) index = IndexOf(adapter);
  });
  return index;
}

InterfaceAddresses QueryInterfaceAddresses(std::uint32_t interfaceIndex) {
  InterfaceAddresses result;
  ForEachAdapter(kUnicastOnly, [&](const IP_ADAPTER_ADDRESSES& adapter) {
    if (IndexOf(adapter) != interfaceIndex) return;
    for (const auto* address = adapter.FirstUnicastAddress; address != nullptr;
         address = address->Next) {
      if (const auto* ipv4 = SocketAddressAs<sockaddr_in>(*address, AF_INET)) {
        result.ipv4.push_back(ipv4->sin_addr.s_addr);
      }
      const auto* ipv6 = SocketAddressAs<sockaddr_in6>(*address, AF_INET6);
      if (ipv6 == nullptr) continue;
      if (address->DadState == IpDadStateTentative) result.ipv6Pending = true;
      if (address->DadState < IpDadStateDeprecated) continue;
      result.ipv6.push_back(BytesOf(ipv6->sin6_addr));
    }
  });
  return result;
}

}  // namespace talvorn::platform
