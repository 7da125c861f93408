#include "app/interface_watch.h"

#include <algorithm>
#include <array>
#include <map>
#include <string>

#include "discovery/usable_interface.h"
#include "platform/address.h"
#include "platform/settings_store.h"
#include "platform/text_encoding.h"
#include "support/debug_trace.h"
#include "support/id_octets.h"
#include "support/settings.h"
#include "support/thread.h"

namespace talvorn {
namespace {

using platform::Ipv4AddressRow;
using platform::Ipv6Adapter;

// Whether two tables say the same, whatever was made anew meanwhile.
bool SameRows(const InterfaceWatch::Ipv4Table& one, const InterfaceWatch::Ipv4Table& other) {
  return std::ranges::equal(one, other, [](Ipv4AddressRow a, const Ipv4AddressRow& b) {
    a.incarnation = b.incarnation;
    return a == b;
  });
}

std::vector<platform::HostAddress> AddressesOf(const InterfaceWatch::Ipv4Table& table) {
  std::vector<platform::HostAddress> addresses;
  for (const Ipv4AddressRow& row : table)
    addresses.push_back(platform::HostAddress::Ipv4(row.address));
  return addresses;
}

std::vector<platform::HostAddress> AddressesOf(const InterfaceWatch::Ipv6Adapters& adapters) {
  std::vector<platform::HostAddress> addresses;
  for (const Ipv6Adapter& adapter : adapters)
    addresses.insert(addresses.end(), adapter.addresses.begin(), adapter.addresses.end());
  return addresses;
}

void TellOfChange(CThreadList& threads) {
  for (ThreadItem* item = threads.First(); item != nullptr; item = threads.Next())
    item->networkChanged.Set();
}

void NoteIncarnation(ThreadItem& item, std::uint32_t incarnation) {
  if (incarnation == 0 || item.incarnation.exchange(incarnation) == incarnation) return;
  item.networkChanged.Set();
}

void EndThread(ThreadItem& item) {
  item.running.Clear();
  item.thread.Join();
}

// `family` is "IPv4" or "IPv6".
void ShutDown(CThreadList& threads, std::u16string_view family) {
  Trace(u"shut down all multicast %s request threads", family);
  threads.ShutDownAll();
  Trace(u"Wait for shut down all multicast %s request threads", family);
  threads.WaitAll();
  Trace(u"Delete all multicast %s request threads", family);
  threads.DeleteItemAll();
}

}  // namespace

InterfaceWatch::InterfaceWatch(const EventSource& events, CResponseList& responses,
                               CItemList& items, RequestProcedure procedure, const RunFlag& running)
    : events_(events),
      responses_(responses),
      items_(items),
      procedure_(procedure),
      running_(running) {}

void InterfaceWatch::WatchIpv4Interfaces(std::optional<Ipv4Table> table) {
  const bool changed = table && table != SavedAddressTable;
  if (changed) {
    ownRequests_.SetAddresses(platform::AddressFamily::kIpv4, AddressesOf(*table));
    if (!firstTable_ && !SameRows(*table, *SavedAddressTable)) {
      constexpr std::u16string_view kChanged = u"Network interfaces have been changed!\n";
      Report(events_, EventKind::kInformation, kChanged);
      Trace(u"%s", kChanged);
    }
    firstTable_ = false;
    SavedAddressTable = std::move(table);
    ipv4ThreadsDiffer_ = true;
  } else {
    ReinitRequests();
  }
  if (!ipv4ThreadsDiffer_) return;
  StopVanishedIpv4();
  ipv4ThreadsDiffer_ = !StartNewIpv4();
  if (!changed) return;
  TellOfChange(ipv4Threads_);
  TellOfChange(ipv6Threads_);
}

void InterfaceWatch::StopVanishedIpv4() {
  for (ThreadItem* item = ipv4Threads_.First(); item != nullptr;) {
    const std::uint32_t id = item->id;
    if (std::ranges::any_of(*SavedAddressTable,
                            [id](const Ipv4AddressRow& row) { return row.address == id; })) {
      item = ipv4Threads_.Next();
      continue;
    }
    EndThread(*item);
    const auto octet = IdOctets(id);
    std::array<char16_t, 1'024> text{};
    FormatTextW(text, u"Network interface IPv4: %u.%u.%u.%u switched down !", octet[0], octet[1],
                octet[2], octet[3]);
    Report(events_, EventKind::kInformation, text.data());
    Trace(u"Network interface IPv4: %u.%u.%u.%u (%u) switched down [0x%08x]!", octet[0], octet[1],
          octet[2], octet[3], id, item->handleValue);
    item = ipv4Threads_.Next();
    ipv4Threads_.DeleteItem(id);
  }
}

bool InterfaceWatch::StartNewIpv4() {
  bool all = true;
  for (const Ipv4AddressRow& row : *SavedAddressTable) {
    if (!IsUsable(row)) continue;
    // Of an address on several interfaces the first counts, as it does to the receivers.
    const std::uint32_t incarnation =
        std::ranges::find(*SavedAddressTable, row.address, &Ipv4AddressRow::address)->incarnation;
    if (ThreadItem* const known = ipv4Threads_.FindItem(row.address); known != nullptr) {
      NoteIncarnation(*known, incarnation);
      if (!known->thread.valid() && !StartThread(*known)) all = false;
      continue;
    }
    ThreadItem* const item = AddItem(ipv4Threads_, row.address, 4, row.mask, incarnation);
    if (item == nullptr || !StartThread(*item)) all = false;
    if (item == nullptr) continue;
    const auto octet = IdOctets(row.address);
    std::array<char16_t, 1'024> text{};
    FormatTextW(text, u"Network interface IPv4: %u.%u.%u.%u  located !", octet[0], octet[1],
                octet[2], octet[3]);
    Report(events_, EventKind::kInformation, text.data());
    Trace(u"Network interface IPv4: %u.%u.%u.%u (%u) located [0x%08x]!", octet[0], octet[1],
          octet[2], octet[3], item->id, item->handleValue);
  }
  return all;
}

ThreadItem* InterfaceWatch::AddItem(CThreadList& threads, std::uint32_t id, std::uint32_t ipVersion,
                                    std::uint32_t mask, std::uint32_t incarnation) {
  ThreadItem* const item = threads.AddItem(id);
  if (item == nullptr) return nullptr;
  item->mask = mask;
  item->ipVersion = ipVersion;
  item->responseList = &responses_;
  item->itemList = &items_;
  item->incarnation = incarnation;
  item->ownRequests = &ownRequests_;
  return item;
}

bool InterfaceWatch::StartThread(ThreadItem& item) {
  item.running.Set();
  item.thread =
      talvorn::StartThread("request", [&item, procedure = procedure_] { return procedure(item); });
  item.handleValue = item.thread.handleValue();
  return item.thread.valid();
}

void InterfaceWatch::ReinitRequests() {
  platform::SettingsKey key =
      platform::SettingsKey::Open(kInterfacesKey, platform::SettingsAccess::kReadWrite);
  std::vector<std::u16string> pending = key.PendingNumbers();
  std::size_t served = 0;
  for (; served < pending.size() && running_; ++served) Reinitialize(pending[served]);
  pending.resize(served);
  if (served > 0) (void)key.SetNumbers(pending, 1);  // what stays pending is served again
}

void InterfaceWatch::Reinitialize(std::u16string_view name) {
  constexpr std::u16string_view kBanner =
      u"################################################################################\n";
  static_assert(kBanner.size() == 81);
  Trace(u"%s", kBanner);
  Trace(u"%s", kBanner);
  Trace(u"#### Network interface thread for %s will be reinitialized!\n", name);
  Trace(u"%s", kBanner);
  Trace(u"%s", kBanner);
  if (!SavedAddressTable) return;
  const std::uint32_t address = platform::ParseIpv4(platform::WideToNarrow(name).c_str());
  const std::size_t erased = std::erase_if(
      *SavedAddressTable, [address](const Ipv4AddressRow& row) { return row.address == address; });
  if (erased > 0) ipv4ThreadsDiffer_ = true;
}

void InterfaceWatch::WatchIpv6Interfaces(const std::optional<Ipv6Adapters>& adapters) {
  if (adapters) ownRequests_.SetAddresses(platform::AddressFamily::kIpv6, AddressesOf(*adapters));
  std::map<std::uint32_t, std::uint32_t> current;  // incarnations by index
  for (const Ipv6Adapter& adapter : adapters.value_or(Ipv6Adapters{})) {
    if (!IsUsable(adapter)) continue;
    current.emplace(adapter.ipv6IfIndex, adapter.incarnation);
    Trace(u"Ipv6IfIndex (IPv6 interface): %u Flags:%x Stat:%u\n", adapter.ipv6IfIndex,
          adapter.flags, adapter.operStatus);
  }
  for (const auto& [index, incarnation] : current) {
    KnownIpv6Interfaces.insert(index);
    StartIpv6(index, incarnation);
  }
  std::erase_if(KnownIpv6Interfaces, [&](std::uint32_t index) {
    const bool gone = !current.contains(index);
    if (gone) StopIpv6(index);
    return gone;
  });
}

void InterfaceWatch::StartIpv6(std::uint32_t index, std::uint32_t incarnation) {
  if (ThreadItem* const known = ipv6Threads_.FindItem(index); known != nullptr) {
    NoteIncarnation(*known, incarnation);
    if (!known->thread.valid()) (void)StartThread(*known);
    return;
  }
  ThreadItem* const item = AddItem(ipv6Threads_, index, 6, 0, incarnation);
  if (item == nullptr) return;
  (void)StartThread(*item);  // tried again at the next look
  std::array<char16_t, 50> text{};
  FormatTextW(text, u"Network interface IPv6: %u located !", index);
  Report(events_, EventKind::kInformation, text.data());
  Trace(u"Network interface IPv6: %u located [0x%08x]!", index, item->handleValue);
}

void InterfaceWatch::StopIpv6(std::uint32_t index) {
  ThreadItem* const item = ipv6Threads_.FindItem(index);
  if (item == nullptr) return;
  EndThread(*item);
  std::array<char16_t, 50> text{};
  FormatTextW(text, u"Network IPv6 interface: %u shut down !", index);
  Report(events_, EventKind::kInformation, text.data());
  Trace(u"Network IPv6 interface: %u shut down [0x%08x]!", index, item->handleValue);
  ipv6Threads_.DeleteItem(index);
}

void InterfaceWatch::ShutDownIpv4() { ShutDown(ipv4Threads_, u"IPv4"); }

void InterfaceWatch::ShutDownIpv6() { ShutDown(ipv6Threads_, u"IPv6"); }

}  // namespace talvorn
