#include "simulator/device_model.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>
#include <utility>

#include "devices/item_record.h"
#include "support/byte_io.h"
#include "support/text_format.h"

namespace talvorn {
namespace {

// What a device says about itself is drawn from these; each draw has its own tag.
enum Tag : std::uint64_t { kMachineTag, kBayTag, kClipTag, kStatusTag, kReadingTag };

constexpr std::array<std::string_view, 12> kMachines = {"Press",
                                                        "Oven",
                                                        "Mixer",
                                                        "Conveyor",
                                                        "Furnace",
                                                        "Lathe",
                                                        "Loader",
                                                        "Dryer",
                                                        "Pr\xFC"
                                                        "fstand",  // narrow code page
                                                        "Welder",
                                                        "Crane",
                                                        "Packer"};
constexpr std::array<std::string_view, 5> kStatuses = {"RUN", "IDLE", "BUSY", "WAIT", "STOP"};
constexpr std::array<std::string_view, 4> kReadings = {"temperature %u.%u C", "pressure %u.%u bar",
                                                       "supply %u.%u V", "speed %u.%u m/s"};
constexpr std::uint32_t kDevicesPerHost = 4;

template <std::size_t kSize>
std::string_view Pick(const std::array<std::string_view, kSize>& texts, std::uint64_t number) {
  return texts[number % kSize];
}

template <class... Arguments>
std::string Format(CheckedFormat<char, std::type_identity_t<Arguments>...> format,
                   const Arguments&... arguments) {
  std::array<char, 64> text{};
  FormatTextA(text, format, arguments...);
  return text.data();
}

std::string_view AddressOf(const std::vector<std::string>& addresses, std::uint32_t index) {
  if (addresses.empty()) return "";
  return addresses[index % addresses.size()];
}

std::string Reading(std::uint32_t item, std::uint64_t random) {
  const auto whole = static_cast<std::uint32_t>(random % 90 + 10);
  const auto tenth = static_cast<std::uint32_t>(random / 90 % 10);
  std::array<char, 64> text{};
  const FormatArguments<char, 2> values{ToFormatArgument<char>(whole),
                                        ToFormatArgument<char>(tenth)};
  FormatBounded(text, Pick(kReadings, item), values);
  return text.data();
}

}  // namespace

std::uint64_t Mix(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
  // The finaliser of SplitMix64, once per argument.
  std::uint64_t hash = 0;
  for (const std::uint64_t value : {a, b, c}) {
    hash += value + 0x9E3779B97F4A7C15;
    hash = (hash ^ hash >> 30) * 0xBF58476D1CE4E5B9;
    hash = (hash ^ hash >> 27) * 0x94D049BB133111EB;
    hash ^= hash >> 31;
  }
  return hash;
}

DeviceModel::DeviceModel(const ModelOptions& options, ModelAddresses addresses)
    : options_(options), addresses_(std::move(addresses)) {
  options_.absentDevices = std::min(options_.absentDevices, options_.devices);
}

std::uint64_t DeviceModel::Epoch(std::uint32_t device, std::uint64_t nowMs,
                                 std::uint32_t periodMs) const {
  if (periodMs == 0) return 0;
  const std::uint64_t head = std::uint64_t{device} * periodMs / std::max(options_.devices, 1U);
  return (nowMs + head) / periodMs;
}

bool DeviceModel::Present(std::uint32_t device, std::uint64_t nowMs) const {
  const std::uint32_t staying = options_.devices - options_.absentDevices;
  if (options_.absentEveryMs == 0 || device < staying) return true;
  const std::uint64_t head =
      std::uint64_t{device - staying} * options_.absentEveryMs / options_.absentDevices;
  const std::uint64_t position = (nowMs + head) % options_.absentEveryMs;
  return position + options_.absentForMs < options_.absentEveryMs;
}

bool DeviceModel::HasShortRecord(std::uint32_t device) const {
  return options_.layout == RecordLayout::kShort ||
         (options_.layout == RecordLayout::kMixed && device % 2 == 1);
}

std::uint32_t DeviceModel::ItemCount(std::uint32_t device, std::uint64_t nowMs) const {
  if (HasShortRecord(device) || options_.items == 0) return 0;
  const bool withdrawn = Epoch(device, nowMs, options_.toggleItemMs) % 2 == 1;
  return options_.items - (withdrawn ? 1 : 0);
}

std::string DeviceModel::SerialText(std::uint32_t device) const {
  return Format("%07u", options_.firstSerial + device);
}

DeviceRecord DeviceModel::Record(std::uint32_t device, std::uint64_t nowMs) const {
  const auto draw = [&](Tag tag) { return Mix(options_.seed, options_.firstSerial + device, tag); };
  const std::uint32_t host = device / kDevicesPerHost;

  DeviceRecord record;
  record.length = kDeviceRecordSize;
  record.magic.Assign(kMagic);
  record.type.Assign(kTypeRecord);
  record.itemOffset = ItemCount(device, nowMs) > 0 ? kDeviceRecordSize : 0;
  record.deviceIpv4.Assign(AddressOf(addresses_.ipv4, device));
  record.deviceIpv6.Assign(AddressOf(addresses_.ipv6, device));
  record.deviceStatus.Assign(
      Pick(kStatuses, draw(kStatusTag) % 97 + Epoch(device, nowMs, options_.changeStatusMs)));
  record.deviceSerial.Assign(SerialText(device));
  record.deviceClip.Assign(
      Format("%s%u", std::string_view("ABCDEF").substr(draw(kClipTag) % 6, 1), device % 9 + 1));
  record.deviceAlias.Assign(Format("%s %s-%u", Pick(kMachines, draw(kMachineTag)),
                                   std::string_view("NESW").substr(draw(kBayTag) % 4, 1),
                                   device + 1));
  record.hostIpv4.Assign(AddressOf(addresses_.ipv4, host));
  record.hostIpv6.Assign(AddressOf(addresses_.ipv6, host));
  record.hostAlias.Assign(Format("station-%02u", host + 1));
  return record;
}

std::vector<std::byte> DeviceModel::ItemChain(std::uint32_t device, std::uint64_t nowMs) const {
  const std::uint32_t count = ItemCount(device, nowMs);
  const std::uint32_t withdrawn = options_.items - count;  // from the front: see nextOffset
  const std::uint32_t size = kItemHeaderSize + options_.itemSize;
  const std::uint64_t changes = Epoch(device, nowMs, options_.changeItemsMs);

  std::vector<std::byte> chain(std::size_t{count} * size);
  ByteWriter writer(chain);
  for (std::uint32_t item = withdrawn; count > 0 && item < options_.items; ++item) {
    // One item changes per period: item 0 with the first, item 1 with the second, ...
    const std::uint64_t version = (changes + options_.items - 1 - item) / options_.items;
    const std::uint64_t random =
        Mix(Mix(options_.seed, options_.firstSerial + device, kReadingTag), item, version);

    writer.U32Big(size);  // the whole item is its identity
    writer.U32Big(item + 1);
    writer.Zero(8);
    writer.U32Big(item + 1 < options_.items ? size : 0);
    writer.U32Big(options_.itemSize);
    const std::size_t room = options_.itemSize - kMinItemSize;
    const std::string reading =
        Format("%s (reading %u)", Reading(item, random), version + 1).substr(0, room);
    writer.Bytes(AsBytes(reading));
    writer.Zero(room - reading.size());
  }
  return chain;
}

std::vector<std::byte> DeviceModel::Answer(std::uint32_t device, std::uint64_t nowMs) const {
  const DeviceRecord record = Record(device, nowMs);
  if (HasShortRecord(device)) {
    ShortDeviceRecord older;
    older.length = kShortDeviceRecordSize;
    older.magic.Assign(kMagic);
    older.type.Assign(kTypeShortRecord);
    older.deviceIpv4 = record.deviceIpv4;
    older.deviceStatus = record.deviceStatus;
    older.deviceSerial = record.deviceSerial;
    older.deviceClip = record.deviceClip;
    older.deviceAlias = record.deviceAlias;
    older.hostIpv4 = record.hostIpv4;
    older.hostAlias = record.hostAlias;
    std::vector<std::byte> answer(kShortDeviceRecordSize);
    EncodeShortDeviceRecord(older, std::span(answer).first<kShortDeviceRecordSize>());
    return answer;
  }
  std::vector<std::byte> answer(kDeviceRecordSize);
  EncodeDeviceRecord(record, std::span(answer).first<kDeviceRecordSize>());
  const std::vector<std::byte> items = ItemChain(device, nowMs);
  answer.insert(answer.end(), items.begin(), items.end());
  return answer;
}

}  // namespace talvorn
