// The text format in which monitoring systems collect numbers: HELP, TYPE and the samples of
// each metric.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "client/doctor/traffic_listener.h"
#include "devices/device_record.h"
#include "platform/clock.h"

namespace talvorn {

// Devices by the addresses in their records. The record does not say over which interface a
// device was heard, nor whether it is a static one.
struct DeviceCounts {
  std::size_t ipv4 = 0;
  std::size_t ipv6 = 0;
  std::size_t both = 0;  // only static devices say both
  std::size_t none = 0;
};

[[nodiscard]] DeviceCounts CountDevices(std::span<const DeviceRecord> devices);

// What a locator that answers has said.
struct LocatorNumbers {
  std::string version;  // UTF-8, from outside
  std::uint64_t replyMicroseconds = 0;
  DeviceCounts devices;
  std::size_t items = 0;
};

struct FleetNumbers {
  std::optional<LocatorNumbers> locator;  // none: it does not answer
  bool locatorPresent = false;
  std::size_t locators = 0;  // that this account sees running
  // By the interface's name; empty when nobody has listened.
  std::map<std::string, HeardOnInterface> heard{};
  std::optional<std::uint64_t> receiveDrops;  // none: the system does not tell
  platform::FileTime takenAt = 0;             // UTC
};

[[nodiscard]] std::string MetricsText(const FleetNumbers& numbers);

// A text as it stands between the quotation marks of a label, cut to a bearable length.
// Harmless on a terminal as well.
[[nodiscard]] std::string LabelValue(std::string_view utf8);

}  // namespace talvorn
