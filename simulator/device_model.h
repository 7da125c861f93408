// What the simulated devices say at a given moment. Everything follows from the
// options, the device's index and the time since the start, so that two runs with the
// same options say the same. Pure code; the sockets are in simulator.h.
//
//   const DeviceModel devices({.devices = 12, .items = 2}, {.ipv4 = {"10.77.0.11"}});
//   if (devices.Present(3, nowMs)) Send(devices.Answer(3, nowMs));
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "devices/device_record.h"

namespace talvorn {

enum class RecordLayout { kFull, kShort, kMixed };

// Times are in milliseconds; a schedule with the period 0 is off. A schedule runs
// through the devices evenly: of n devices, the next one is a period/n later.
struct ModelOptions {
  std::uint32_t devices = 1;
  std::uint32_t firstSerial = 1;
  RecordLayout layout = RecordLayout::kFull;  // kMixed: every second record is short
  std::uint32_t items = 0;                    // of a device with full records
  std::uint32_t itemSize = 64;                // of an item's body, length word included
  std::uint32_t changeItemsMs = 0;            // one item of each device, in turn
  std::uint32_t toggleItemMs = 0;             // the first item is there, is not there, ...
  std::uint32_t changeStatusMs = 0;
  std::uint32_t absentForMs = 0;             // away at the end of ...
  std::uint32_t absentEveryMs = 0;           // ... each of these periods
  std::uint32_t absentDevices = UINT32_MAX;  // the last devices that come and go
  std::uint32_t seed = 1;
};

// Smallest body that holds its own length, and the most that a datagram takes.
inline constexpr std::uint32_t kMinItemSize = 4;
inline constexpr std::uint32_t kMaxAnswerSize = 65'000;
inline constexpr std::uint32_t kMaxSerial = 9'999'999;

// The addresses that the devices are spread over, as texts.
struct ModelAddresses {
  std::vector<std::string> ipv4;
  std::vector<std::string> ipv6;
};

class DeviceModel {
 public:
  DeviceModel(const ModelOptions& options, ModelAddresses addresses);

  [[nodiscard]] std::uint32_t count() const { return options_.devices; }
  [[nodiscard]] bool Present(std::uint32_t device, std::uint64_t nowMs) const;
  [[nodiscard]] bool HasShortRecord(std::uint32_t device) const;

  // `itemOffset` is set when items follow.
  [[nodiscard]] DeviceRecord Record(std::uint32_t device, std::uint64_t nowMs) const;
  // The chain of items, empty when the device has none.
  [[nodiscard]] std::vector<std::byte> ItemChain(std::uint32_t device, std::uint64_t nowMs) const;
  // The whole datagram, in the layout of the device.
  [[nodiscard]] std::vector<std::byte> Answer(std::uint32_t device, std::uint64_t nowMs) const;

 private:
  [[nodiscard]] std::uint64_t Epoch(std::uint32_t device, std::uint64_t nowMs,
                                    std::uint32_t periodMs) const;
  [[nodiscard]] std::uint32_t ItemCount(std::uint32_t device, std::uint64_t nowMs) const;
  [[nodiscard]] std::string SerialText(std::uint32_t device) const;

  ModelOptions options_;
  ModelAddresses addresses_;
};

// A well-mixed number that depends on all of its arguments.
[[nodiscard]] std::uint64_t Mix(std::uint64_t a, std::uint64_t b, std::uint64_t c = 0);

}  // namespace talvorn
