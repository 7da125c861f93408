#include "discovery/multicast_receiver.h"

#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "devices/device_record.h"
#include "devices/item_record.h"
#include "discovery/datagram.h"
#include "discovery/multicast_socket.h"
#include "discovery/pass_pacer.h"
#include "discovery/retry_pace.h"
#include "platform/text_encoding.h"
#include "support/completed.h"
#include "support/debug_trace.h"
#include "support/event_source.h"
#include "support/thread.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kDestructionWaitMs = 2'000;

// What comes in within this time is taken in one pass; even a burst is far from filling a
// receive buffer by then.
constexpr std::uint32_t kTickMs = 8;

// What a report shows of a text field: "--" stands for an empty one.
std::u16string DisplayText(std::string_view field) {
  return field.empty() ? u"--" : platform::NarrowToWide(field);
}

// One report of a device, to the event log and to the trace.
void ReportDevice(const EventSource& source, const DeviceRecord& record) {
  const std::u16string serial = DisplayText(record.deviceSerial.view());
  const std::u16string status = DisplayText(record.deviceStatus.view());
  const std::u16string clip = DisplayText(record.deviceClip.view());
  const std::u16string alias = DisplayText(record.deviceAlias.view());
  const std::u16string ipv4 = DisplayText(record.deviceIpv4.view());
  const std::u16string ipv6 = DisplayText(record.deviceIpv6.view());
  const std::u16string hostAlias = DisplayText(record.hostAlias.view());
  const std::u16string hostIpv4 = DisplayText(record.hostIpv4.view());
  const std::u16string hostIpv6 = DisplayText(record.hostIpv6.view());

  std::array<char16_t, 1'024> text{};
  FormatTextW(text,
              u"Device Serial: \t\t%s\nDevice Status: \t\t%s\nDevice Clip: \t\t%s\n"
              u"Device Alias: \t\t%s\nDevice IPV4 Address: \t%s\nDevice IPV6 Address: \t%s\n"
              u"Host Alias: \t\t%s\nHost IPV4 Address: \t\t%s\nHost IPV6 Address: \t\t%s",
              serial, status, clip, alias, ipv4, ipv6, hostAlias, hostIpv4, hostIpv6);
  Report(source, EventKind::kInformation, text.data());
  Trace(
      u"ThreadMulticastReceive() CAST RESPONSE\nDevice Serial:     %s\nDevice Status:     %s\n"
      u"Device Clip:       %s\nDevice Alias:      %s\nDevice IPV4 Address: %s\n"
      u"Device IPV6 Address: %s\nHost Alias:        %s\nHost IPV4 Address:   %s\n"
      u"Host IPV6 Address:   %s",
      serial, status, clip, alias, ipv4, ipv6, hostAlias, hostIpv4, hostIpv6);
}

// What the device wrote about its own address gives way to the sender's address.
void ReplaceDeviceAddresses(DeviceRecord& record, const platform::SocketAddress& source) {
  std::string sender = platform::NumericHost(source);
  if (sender.size() >= decltype(record.deviceIpv6)::kWidth) sender.clear();  // not half of one
  switch (source.family()) {
    case platform::AddressFamily::kIpv6:
      record.deviceIpv4.Assign("");
      record.deviceIpv6.Assign(sender);
      break;
    case platform::AddressFamily::kIpv4:
      record.deviceIpv4.Assign(sender);
      record.deviceIpv6.Assign("");
      break;
    case platform::AddressFamily::kUnspecified:
      break;
  }
}

void AddToLists(const MulticastReceiver& receiver, const DeviceRecord& record,
                std::span<const std::byte> datagram) {
  {
    const std::lock_guard guard(receiver.responseList->lock);
    receiver.responseList->Add(&record, 0);
  }
  if (record.itemOffset == 0 || record.itemOffset > datagram.size() ||
      receiver.itemList == nullptr) {
    return;
  }
  ForEachItem(datagram.subspan(record.itemOffset), [&](const ItemView& item) {
    const std::lock_guard guard(receiver.itemList->lock);
    receiver.itemList->Add(record.numericSerial(), item);
  });
}

void HandleDatagram(MulticastReceiver& receiver, std::span<const std::byte> datagram,
                    const platform::SocketAddress& source, const EventSource& events) {
  if (!AcceptDatagram(datagram, receiver.expectedMagic)) return;
  if (receiver.responseList == nullptr) {
    // A request of our own comes in where two interfaces share a network.
    if (receiver.ownRequests != nullptr && receiver.ownRequests->Sent(source)) return;
  } else {
    if (IsAnswer(datagram)) {
      DeviceRecord record = DecodeAnswer(datagram);
      ReplaceDeviceAddresses(record, source);
      ReportDevice(events, record);
      AddToLists(receiver, record, datagram);
    }
  }
  // Of responses the owner tells the trace, and nobody else.
  if (receiver.responseList == nullptr || DebugTrace().isEnabled()) receiver.dataEvent.Set();
}

void ReceiveUntilStopped(MulticastReceiver& receiver, const EventSource& events) {
  const platform::Waitable* const waitables[] = {&receiver.stopEvent, &receiver.rejoinEvent,
                                                 &receiver.socket};
  platform::Datagrams datagrams;
  RetryPace rejoin;
  PassPacer pacer(kTickMs);
  while (!receiver.stopRequested) {
    if (pacer.AwaitNextPass(waitables, rejoin.TimeLeft()) == platform::WaitStatus::kFailed) return;
    bool more = true;
    while (more && !receiver.stopRequested) {
      if (receiver.rejoinEvent.Test() || rejoin.Due()) {
        rejoin.Begin();
        (void)Completed([&] {
          if (receiver.socket.RejoinGroup()) rejoin.End();
        });
      }
      const auto taken = receiver.socket.Receive(datagrams);
      if (!taken) return;
      for (std::size_t i = 0; i < *taken; ++i) {
        (void)Completed(
            [&] { HandleDatagram(receiver, datagrams[i], datagrams.source(i), events); });
      }
      more = *taken == platform::Datagrams::kMost;
    }
  }
}

void TellToStop(MulticastReceiver& receiver) {
  receiver.stopRequested = true;
  receiver.stopEvent.Set();
}

// The receiver's events, those made anew that could not be made before.
bool HasEvents(MulticastReceiver& receiver) {
  bool all = true;
  for (platform::Event* event : {&receiver.stopEvent, &receiver.dataEvent, &receiver.rejoinEvent}) {
    if (!event->valid()) *event = platform::Event::Create(platform::Event::Mode::kAutoReset);
    all = all && event->valid();
  }
  return all;
}

}  // namespace

MulticastReceiver::~MulticastReceiver() {
  TellToStop(*this);
  thread.JoinFor(kDestructionWaitMs);
}

bool OpenReceiver(MulticastReceiver& receiver, std::uint32_t interfaceValue,
                  const char* groupText) {
  receiver.expectedMagic.clear();
  receiver.stopRequested = false;
  if (!HasEvents(receiver)) return false;
  auto socket = OpenReceivingSocket(interfaceValue, groupText);
  if (!socket) return false;
  receiver.socket = std::move(*socket);
  receiver.expectedMagic = kMagic;
  receiver.thread =
      StartThread("receiver", [&receiver] { return ThreadMulticastReceive(receiver); });
  if (!receiver.thread.valid()) receiver.socket.Close();
  return receiver.thread.valid();
}

void StopReceiver(MulticastReceiver& receiver) {
  TellToStop(receiver);
  receiver.thread.Join();
}

std::uint32_t ThreadMulticastReceive(MulticastReceiver& receiver) {
  EventSource events;
  OpenEventSource(events, kSourceCastResponse);  // without it the reports are lost
  ReceiveUntilStopped(receiver, events);
  receiver.socket.Close();
  CloseEventSource(events);
  return 0;
}

}  // namespace talvorn
