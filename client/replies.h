// Decoding of the locator's replies. Pure code; a reply that is not exactly what its
// header says is none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "devices/device_record.h"
#include "exchange/messages/messages.h"

namespace talvorn {

// An item as the device sent it, see devices/item_record.h.
struct DeviceItem {
  std::uint32_t serial = 0;      // numeric identity of the device
  std::uint32_t hashLength = 0;  // bytes, from the start, that identify the item
  std::uint32_t nextOffset = 0;  // where the device placed the next one; 0: the last
  std::vector<std::byte> bytes;  // the whole item, header included

  // Bytes 4 to 15 of the header, which belong to the device.
  [[nodiscard]] std::span<const std::byte> header() const;
  // What follows the length word of the body.
  [[nodiscard]] std::span<const std::byte> content() const;
  // What identifies the item, as far as it lies within the item.
  [[nodiscard]] std::span<const std::byte> identity() const;

  bool operator==(const DeviceItem&) const = default;
};

// The narrow text of a reply of `type`.
[[nodiscard]] std::optional<std::string> DecodeTextReply(std::span<const std::byte> reply,
                                                         ReplyType type);
[[nodiscard]] std::optional<std::vector<DeviceRecord>> DecodeDevicesReply(
    std::span<const std::byte> reply);
// Newest first.
[[nodiscard]] std::optional<std::vector<DeviceItem>> DecodeItemsReply(
    std::span<const std::byte> reply);

}  // namespace talvorn
