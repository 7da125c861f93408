// What has changed from one reading of the locator's lists to the next.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "client/replies.h"
#include "devices/device_record.h"
#include "support/file_time.h"

namespace talvorn {

enum class ChangeKind {
  kDeviceAppeared,
  kDeviceChanged,
  kDeviceGone,
  kItemNew,
  kItemChanged,  // new, but with the device's header of one that was there before
  kItemGone,
  kItemExpired,  // gone, but one with the same header is there, as after a change
};

struct Change {
  ChangeKind kind = ChangeKind::kDeviceAppeared;
  DeviceRecord device{};  // of the kinds kDevice...
  DeviceRecord before{};  // kDeviceChanged
  DeviceItem item{};      // of the kinds kItem...
};

class ChangeTracker {
 public:
  // The changes since the last call, in the order of the serials; everything has
  // appeared with the first one.
  [[nodiscard]] std::vector<Change> UpdateDevices(std::span<const DeviceRecord> devices);
  [[nodiscard]] std::vector<Change> UpdateItems(std::span<const DeviceItem> items);

 private:
  // Serial, header and identity of an item.
  using ItemKey = std::pair<std::pair<std::uint32_t, std::string>, std::string>;

  std::map<std::string, DeviceRecord> devices_;
  std::map<ItemKey, DeviceItem> items_;
};

// "14:03:07  device changed   0000012  status IDLE -> RUN"
[[nodiscard]] std::string ChangeLine(const Change& change, FileTime local);
// {"time":"...","event":"device-changed","device":{...},"before":{...},"changed":["status"]}
[[nodiscard]] std::string ChangeJson(const Change& change, FileTime utc);

// {"time":"...","event":"locator-lost"}, or "locator-found" once it answers again.
[[nodiscard]] std::string LocatorJson(bool answers, FileTime utc);

}  // namespace talvorn
