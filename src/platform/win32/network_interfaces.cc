#include "platform/network_interfaces.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "platform/text_encoding.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

// A list of adapters may have grown between the question for its size and the next.
constexpr int kQueryAttempts = 4;

// The size first, the content next; whatever happens between makes it fail.
std::optional<std::vector<std::byte>> QueryAdapters(ULONG family, ULONG flags) {
  ULONG size = 0;
  (void)GetAdaptersAddresses(family, flags, nullptr, nullptr, &size);
  std::vector<std::byte> buffer(size);
  auto* const first = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data());
  if (size == 0 || GetAdaptersAddresses(family, flags, nullptr, first, &size) != NO_ERROR) {
    return std::nullopt;
  }
  return buffer;
}

// Calls `each` for every adapter with what `flags` do not skip; nothing on failure.
template <typename Each>
void ForEachAdapter(ULONG flags, Each&& each) {
  std::optional<std::vector<std::byte>> adapters;
  for (int attempt = 0; attempt < kQueryAttempts && !adapters; ++attempt) {
    adapters = QueryAdapters(AF_UNSPEC, flags);
  }
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

bool HasIpv6Address(const in6_addr& wanted) {
  bool found = false;
  ForEachAdapter(kUnicastOnly, [&](const IP_ADAPTER_ADDRESSES& adapter) {
    for (const auto* address = adapter.FirstUnicastAddress; address != nullptr;
         address = address->Next) {
      const auto* const native = SocketAddressAs<sockaddr_in6>(*address, AF_INET6);
      found = found ||
              (native != nullptr && std::memcmp(&native->sin6_addr, &wanted, sizeof(wanted)) == 0);
    }
  });
  return found;
}

}  // namespace

std::optional<std::vector<Ipv4AddressRow>> QueryIpv4AddressTable() {
  try {
    ULONG size = 0;
    if (GetIpAddrTable(nullptr, &size, TRUE) != ERROR_INSUFFICIENT_BUFFER) return std::nullopt;
    std::vector<std::byte> buffer(std::max<std::size_t>(size, sizeof(MIB_IPADDRTABLE)));
    auto* const table = reinterpret_cast<MIB_IPADDRTABLE*>(buffer.data());
    if (GetIpAddrTable(table, &size, TRUE) != NO_ERROR) return std::nullopt;

    const std::size_t room =
        (buffer.size() - offsetof(MIB_IPADDRTABLE, table)) / sizeof(MIB_IPADDRROW);
    std::vector<Ipv4AddressRow> rows;
    for (std::size_t i = 0; i < std::min<std::size_t>(table->dwNumEntries, room); ++i) {
      const MIB_IPADDRROW& row = table->table[i];
      rows.push_back({.address = row.dwAddr,
                      .interfaceIndex = row.dwIndex,
                      .mask = row.dwMask,
                      .broadcastAddress = row.dwBCastAddr,
                      .reassemblySize = row.dwReasmSize,
                      .type = row.wType,
                      .incarnation = row.dwIndex});
    }
    return rows;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::optional<std::vector<Ipv6Adapter>> QueryIpv6Adapters() {
  // Nothing but the adapters themselves.
  constexpr ULONG kFlags = kNamesOnly | GAA_FLAG_SKIP_FRIENDLY_NAME;
  static_assert(kFlags == 0x2F);
  try {
    const auto buffer = QueryAdapters(AF_INET6, kFlags);
    if (!buffer) return std::nullopt;
    std::vector<Ipv6Adapter> adapters;
    for (const auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(buffer->data());
         adapter != nullptr; adapter = adapter->Next) {
      adapters.push_back({.ipv6IfIndex = adapter->Ipv6IfIndex,
                          .flags = adapter->Flags,
                          .operStatus = static_cast<std::uint32_t>(adapter->OperStatus),
                          .ifType = adapter->IfType});
    }
    return adapters;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

bool IsLocalAddress(const SocketAddress& address) {
  try {
    switch (address.family()) {
      case AddressFamily::kIpv4: {
        const auto rows = QueryIpv4AddressTable();
        return rows && std::ranges::any_of(*rows, [&](const Ipv4AddressRow& row) {
                 return row.address == address.ipv4();
               });
      }
      case AddressFamily::kIpv6: {
        sockaddr_in6 native{};
        std::memcpy(&native, address.storage.data(),
                    std::min<std::size_t>(address.size, sizeof(native)));
        return HasIpv6Address(native.sin6_addr);
      }
      case AddressFamily::kUnspecified:
        break;
    }
  } catch (const std::bad_alloc&) {
    // Not known to be.
  }
  return false;
}

// By the name that Windows shows ("Ethernet 2"), or by its number.
std::uint32_t InterfaceIndexFromName(const char* name) {
  const std::string_view text(name);
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = error == std::errc{} && end == text.data() + text.size();
  std::uint32_t index = 0;
  try {
    const std::u16string wide = Utf8ToWide(text);
    ForEachAdapter(kNamesOnly, [&](const IP_ADAPTER_ADDRESSES& adapter) {
      const bool meant = isNumber ? IndexOf(adapter) == number
                                  : adapter.FriendlyName != nullptr &&
                                        lstrcmpiW(adapter.FriendlyName, ToNative(wide)) == 0;
      if (index == 0 && meant) index = IndexOf(adapter);
    });
  } catch (const std::bad_alloc&) {
    // None found.
  }
  return index;
}

InterfaceAddresses QueryInterfaceAddresses(std::uint32_t interfaceIndex) {
  InterfaceAddresses result;
  try {
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
        std::array<std::uint8_t, 16> bytes{};
        std::memcpy(bytes.data(), &ipv6->sin6_addr, bytes.size());
        result.ipv6.push_back(bytes);
      }
    });
  } catch (const std::bad_alloc&) {
    // What was found so far.
  }
  return result;
}

}  // namespace talvorn::platform
