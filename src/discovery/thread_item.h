// One per-interface request thread: the entry of the thread list and at the same
// time the thread's start parameter.
#pragma once

#include <atomic>
#include <cstdint>

#include "devices/item_list.h"
#include "devices/response_list.h"
#include "discovery/own_requests.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "support/run_flag.h"

namespace talvorn {

struct ThreadItem {
  std::uint32_t id = 0;         // IPv4 address in network byte order, or IPv6 index
  std::uint32_t mask = 0;       // IPv4 subnet mask in network byte order; 0 for IPv6
  std::uint32_t ipVersion = 0;  // 4 or 6
  ThreadItem* next = nullptr;
  RunFlag running;
  platform::Thread thread;
  CResponseList* responseList = nullptr;
  CItemList* itemList = nullptr;

  std::uint32_t handleValue = 0;  // of `thread`, as traces show it even after its end

  // Set when the machine's addresses have changed: what could not be opened is tried
  // again, and where the incarnation is another, the receivers join their groups again.
  platform::Event networkChanged = platform::Event::Create(platform::Event::Mode::kAutoReset);
  std::atomic<std::uint32_t> incarnation{0};  // of the address or the interface
  OwnRequests* ownRequests = nullptr;
};

}  // namespace talvorn
