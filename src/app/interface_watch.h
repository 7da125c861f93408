// Keeps one request thread per usable network interface: the service loop hands in
// what the machine has now, the watch starts threads for what is new and stops those
// of what has gone. IPv4 interfaces are addresses, IPv6 interfaces are indices. Runs
// on the service thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "app/thread_list.h"
#include "platform/network_interfaces.h"
#include "support/event_source.h"

namespace talvorn {

class InterfaceWatch {
 public:
  using Ipv4Table = std::vector<platform::Ipv4AddressRow>;
  using Ipv6Adapters = std::vector<platform::Ipv6Adapter>;
  // Procedure of the request threads.
  using RequestProcedure = std::uint32_t (*)(const ThreadItem&);

  // While `running` is cleared, no more requests for a re-initialisation are served.
  InterfaceWatch(const EventSource& events, CResponseList& responses, CItemList& items,
                 RequestProcedure procedure, const RunFlag& running);

  // One pass each; none means that the system could not be asked. A pass that is
  // broken off for want of memory leaves its rest to the next one, and so does an
  // interface whose thread could not be started.
  void WatchIpv4Interfaces(std::optional<Ipv4Table> table);
  void WatchIpv6Interfaces(const std::optional<Ipv6Adapters>& adapters);

  // Ends all threads of a family in three sweeps.
  void ShutDownIpv4();
  void ShutDownIpv6();

 private:
  // Serves the re-initialisation requests in the registry: takes their addresses out
  // of the saved table, so that their threads are started anew.
  void ReinitRequests();
  void Reinitialize(std::u16string_view name);
  void StopVanishedIpv4();
  // False when one of them could not be started.
  bool StartNewIpv4();
  // A new item, whose thread is not started yet; null without memory.
  ThreadItem* AddItem(CThreadList& threads, std::uint32_t id, std::uint32_t ipVersion,
                      std::uint32_t mask, std::uint32_t incarnation);
  bool StartThread(ThreadItem& item);
  // Starts a new interface's thread, also one that could not be started before.
  void StartIpv6(std::uint32_t index, std::uint32_t incarnation);
  void StopIpv6(std::uint32_t index);

  const EventSource& events_;
  CResponseList& responses_;
  CItemList& items_;
  const RequestProcedure procedure_;
  const RunFlag& running_;
  OwnRequests ownRequests_;
  CThreadList ipv4Threads_;
  CThreadList ipv6Threads_;
  std::optional<Ipv4Table> SavedAddressTable;
  bool firstTable_ = true;
  bool ipv4ThreadsDiffer_ = false;  // from what the saved table asks for
  std::set<std::uint32_t> KnownIpv6Interfaces;
};

}  // namespace talvorn
