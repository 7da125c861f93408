#include "devices/device_record.h"

#include <algorithm>
#include <cstring>

#include "support/byte_io.h"

namespace talvorn {
namespace {

// Bytes of a record, zero-filled to its layout.
template <std::size_t kSize>
std::array<std::byte, kSize> ZeroFilled(std::span<const std::byte> data) {
  std::array<std::byte, kSize> whole{};
  std::copy_n(data.begin(), std::min(data.size(), kSize), whole.begin());
  return whole;
}

class FieldReader {
 public:
  explicit FieldReader(std::span<const std::byte> data) : reader_(data) {}

  void operator()(std::uint32_t& number) { number = reader_.U32Big(); }
  template <std::size_t kWidth>
  void operator()(FixedText<kWidth>& text) {
    text.AssignField(reader_.Take(kWidth));
  }
  template <std::size_t kWidth>
  void operator()(std::array<std::byte, kWidth>& bytes) {
    std::ranges::copy(reader_.Take(kWidth), bytes.begin());
  }

 private:
  ByteReader reader_;
};

class FieldWriter {
 public:
  explicit FieldWriter(std::span<std::byte> data) : writer_(data) {}

  void operator()(std::uint32_t number) { writer_.U32Big(number); }
  template <std::size_t kWidth>
  void operator()(const FixedText<kWidth>& text) {
    writer_.Bytes(text.field());
  }
  template <std::size_t kWidth>
  void operator()(const std::array<std::byte, kWidth>& bytes) {
    writer_.Bytes(bytes);
  }

 private:
  ByteWriter writer_;
};

// The one place for the order of the fields on the wire.
template <class Visitor, class Record>
void VisitFullRecord(Visitor visit, Record& record) {
  visit(record.length);
  visit(record.magic);
  visit(record.type);
  visit(record.itemOffset);
  visit(record.deviceIpv4);
  visit(record.deviceIpv6);
  visit(record.deviceStatus);
  visit(record.deviceSerial);
  visit(record.deviceClip);
  visit(record.deviceAlias);
  visit(record.hostIpv4);
  visit(record.hostIpv6);
  visit(record.hostAlias);
  visit(record.reserved);
}

template <class Visitor, class Record>
void VisitShortRecord(Visitor visit, Record& record) {
  visit(record.length);
  visit(record.magic);
  visit(record.type);
  visit(record.deviceIpv4);
  visit(record.deviceStatus);
  visit(record.deviceSerial);
  visit(record.deviceClip);
  visit(record.deviceAlias);
  visit(record.hostIpv4);
  visit(record.hostAlias);
}

}  // namespace

std::uint32_t DeviceRecord::numericSerial() const {
  std::string_view text = deviceSerial.view();
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  std::uint32_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') break;
    number = number * 10 + static_cast<std::uint32_t>(c - '0');
  }
  return negative ? 0 - number : number;
}

DeviceRecord DecodeDeviceRecord(std::span<const std::byte> data) {
  DeviceRecord record;
  if (data.size() >= kDeviceRecordSize) {
    VisitFullRecord(FieldReader(data), record);
  } else {
    VisitFullRecord(FieldReader(ZeroFilled<kDeviceRecordSize>(data)), record);
  }
  return record;
}

ShortDeviceRecord DecodeShortDeviceRecord(std::span<const std::byte> data) {
  const auto whole = ZeroFilled<kShortDeviceRecordSize>(data);
  ShortDeviceRecord record;
  VisitShortRecord(FieldReader(whole), record);
  return record;
}

void EncodeDeviceRecord(const DeviceRecord& record, std::span<std::byte, kDeviceRecordSize> out) {
  VisitFullRecord(FieldWriter(out), record);
}

void EncodeShortDeviceRecord(const ShortDeviceRecord& record,
                             std::span<std::byte, kShortDeviceRecordSize> out) {
  VisitShortRecord(FieldWriter(out), record);
}

DeviceRecord ConvertShortRecord(const ShortDeviceRecord& record) {
  DeviceRecord full;
  full.length = kDeviceRecordSize;
  full.magic.Assign(kMagic);
  full.type.Assign(kTypeRecord);
  full.deviceIpv4.Assign(record.deviceIpv4.view());
  full.deviceStatus.Assign(record.deviceStatus.view());
  full.deviceSerial.Assign(record.deviceSerial.view());
  full.deviceClip.Assign(record.deviceClip.view());
  full.deviceAlias.Assign(record.deviceAlias.view());
  full.hostIpv4.Assign(record.hostIpv4.view());
  full.hostAlias.Assign(record.hostAlias.view());
  return full;
}

}  // namespace talvorn
