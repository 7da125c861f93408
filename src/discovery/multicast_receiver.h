// A receiver listens on one multicast group through one interface, on a thread of
// its own. Without lists it only tells its owner that datagrams came in (the request
// group); with lists it turns device records into list entries (the response group).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "devices/item_list.h"
#include "devices/response_list.h"
#include "discovery/own_requests.h"
#include "platform/event.h"
#include "platform/socket.h"
#include "platform/thread.h"

namespace talvorn {

struct MulticastReceiver {
  MulticastReceiver() = default;
  MulticastReceiver(const MulticastReceiver&) = delete;
  MulticastReceiver& operator=(const MulticastReceiver&) = delete;
  // Stops a thread that still runs, and waits up to two seconds for it before the
  // events go.
  ~MulticastReceiver();

  platform::Socket socket;
  platform::Thread thread;
  platform::Event stopEvent = platform::Event::Create(platform::Event::Mode::kAutoReset);
  // Set for every accepted datagram; what arrives between two tests coalesces.
  platform::Event dataEvent = platform::Event::Create(platform::Event::Mode::kAutoReset);
  // Set by the owner after the interface was made anew: the group is joined again.
  platform::Event rejoinEvent = platform::Event::Create(platform::Event::Mode::kAutoReset);
  std::atomic<bool> stopRequested{false};  // tells the end even where events failed
  std::string expectedMagic;               // empty until the receiver is opened
  CResponseList* responseList = nullptr;
  CItemList* itemList = nullptr;
  const OwnRequests* ownRequests = nullptr;  // those that a receiver without lists ignores
};

// Opens the socket and starts the thread; may be called again after it failed. The
// lists are set before and stay.
bool OpenReceiver(MulticastReceiver& receiver, std::uint32_t interfaceValue, const char* groupText);

// Ends the thread and waits for it without limit.
void StopReceiver(MulticastReceiver& receiver);

// Thread procedure.
std::uint32_t ThreadMulticastReceive(MulticastReceiver& receiver);

}  // namespace talvorn
