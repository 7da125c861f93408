// The description of one device: what it answers to discovery and status requests,
// what the response list keeps and what clients get.
//
// Wire layout of a full record, 367 bytes; integers big-endian, texts single-byte
// and NUL-terminated inside their width:
//
//   offset width field            offset width field
//        0     4 length                94     8 deviceSerial (decimal digits)
//        4     8 magic "TALVORN"      102     3 deviceClip
//       12     4 type "101"           105    25 deviceAlias
//       16     4 itemOffset           130    19 hostIpv4
//       20    19 deviceIpv4           149    50 hostIpv6
//       39    50 deviceIpv6           199    64 hostAlias
//       89     5 deviceStatus         263   104 reserved
//
// Older devices send a short record of 159 bytes without IPv6 fields and items:
//
//        0     4 length                40     8 deviceSerial
//        4     8 magic                 48     3 deviceClip
//       12     4 type "100"            51    25 deviceAlias
//       16    19 deviceIpv4            76    19 hostIpv4
//       35     5 deviceStatus          95    64 hostAlias
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "support/fixed_text.h"

namespace talvorn {

inline constexpr std::string_view kMagic = "TALVORN";
inline constexpr std::string_view kTypeRequest = "000";
inline constexpr std::string_view kTypeShortRecord = "100";
inline constexpr std::string_view kTypeRecord = "101";

inline constexpr std::size_t kDeviceRecordSize = 367;
inline constexpr std::size_t kShortDeviceRecordSize = 159;

enum class RecordFamily : std::uint8_t { kIpv4, kIpv6 };

struct DeviceRecord {
  std::uint32_t length = 0;
  FixedText<8> magic;
  FixedText<4> type;
  std::uint32_t itemOffset = 0;  // from the start of the record; 0 means no items
  FixedText<19> deviceIpv4;
  FixedText<50> deviceIpv6;
  FixedText<5> deviceStatus;
  FixedText<8> deviceSerial;
  FixedText<3> deviceClip;
  FixedText<25> deviceAlias;
  FixedText<19> hostIpv4;
  FixedText<50> hostIpv6;
  FixedText<64> hostAlias;
  std::array<std::byte, 104> reserved{};

  [[nodiscard]] RecordFamily family() const {
    return deviceIpv6.empty() ? RecordFamily::kIpv4 : RecordFamily::kIpv6;
  }
  // The device's numeric identity: the serial as atoi() reads it, modulo 2^32.
  [[nodiscard]] std::uint32_t numericSerial() const;

  bool operator==(const DeviceRecord&) const = default;
};

struct ShortDeviceRecord {
  std::uint32_t length = 0;
  FixedText<8> magic;
  FixedText<4> type;
  FixedText<19> deviceIpv4;
  FixedText<5> deviceStatus;
  FixedText<8> deviceSerial;
  FixedText<3> deviceClip;
  FixedText<25> deviceAlias;
  FixedText<19> hostIpv4;
  FixedText<64> hostAlias;
};

// Bytes beyond `data` count as zero; a text without terminator loses its last
// character. The type is the caller's to check.
[[nodiscard]] DeviceRecord DecodeDeviceRecord(std::span<const std::byte> data);
[[nodiscard]] ShortDeviceRecord DecodeShortDeviceRecord(std::span<const std::byte> data);

void EncodeDeviceRecord(const DeviceRecord& record, std::span<std::byte, kDeviceRecordSize> out);
void EncodeShortDeviceRecord(const ShortDeviceRecord& record,
                             std::span<std::byte, kShortDeviceRecordSize> out);

// The full record of a device that speaks the older layout.
[[nodiscard]] DeviceRecord ConvertShortRecord(const ShortDeviceRecord& record);

}  // namespace talvorn
