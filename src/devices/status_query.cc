#include "devices/status_query.h"

#include "devices/item_record.h"
#include "devices/status_exchange.h"
#include "platform/address.h"
#include "platform/thread.h"
#include "support/completed.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kRestMs = 100;

// Some devices do not know at which address they are reached; the third byte of their
// status tells, also behind the end of its text.
void CorrectAddresses(DeviceRecord& record, std::uint32_t address) {
  if (record.deviceStatus.field()[2] != std::byte{'8'}) return;
  record.deviceIpv4.Assign(platform::Ipv4Text(address));
  record.deviceIpv6.Assign("");
}

void ProcessReply(const StaticDevice& device, std::uint32_t address, FrameReceiver::Frame& frame) {
  DeviceRecord& record = *frame.record;
  CorrectAddresses(record, address);
  {
    const std::lock_guard guard(device.context->responses->lock);
    device.context->responses->Add(&record, device.validity);
  }
  ForEachItem(frame.items, [&](const ItemView& item) {
    const std::lock_guard guard(device.context->items->lock);
    device.context->items->Add(record.numericSerial(), item);
  });
}

}  // namespace

std::uint32_t ThreadDeviceStatus(const StaticDevice& device) {
  (void)Completed([&] {
    (void)ExchangeStatus(device.host.data(), device.address,
                         [&device](std::uint32_t address, FrameReceiver::Frame& frame) {
                           ProcessReply(device, address, frame);
                         });
  });
  platform::SleepMs(kRestMs);
  return 0;
}

}  // namespace talvorn
