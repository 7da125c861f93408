#include "client/replies.h"

#include <algorithm>
#include <string_view>

#include "devices/item_record.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

constexpr std::size_t kItemOwnHeaderAt = 4;
// An empty list is one zero byte, or one zero record, instead of nothing.
constexpr std::size_t kEmptyItemsSize = 1;

// The payload of a reply of `type`, with the number that its header gives.
struct Payload {
  std::uint32_t count = 0;
  std::span<const std::byte> bytes;
};

std::optional<Payload> PayloadOf(std::span<const std::byte> reply, ReplyType type) {
  const auto header = DecodeReplyHeader(reply);
  if (!header || header->type != type) return std::nullopt;
  return Payload{header->count, reply.subspan(kReplyHeaderSize)};
}

}  // namespace

std::span<const std::byte> DeviceItem::header() const {
  return std::span(bytes).subspan(kItemOwnHeaderAt, kItemNextOffsetAt - kItemOwnHeaderAt);
}

std::span<const std::byte> DeviceItem::content() const {
  return std::span(bytes).subspan(kItemWordsSize);
}

std::span<const std::byte> DeviceItem::identity() const {
  return std::span(bytes).first(std::min<std::size_t>(hashLength, bytes.size()));
}

std::optional<std::string> DecodeTextReply(std::span<const std::byte> reply, ReplyType type) {
  const auto payload = PayloadOf(reply, type);
  if (!payload || payload->count == 0 || payload->count != payload->bytes.size())
    return std::nullopt;
  const std::string_view text = AsText(payload->bytes);
  if (text.find('\0') != text.size() - 1) return std::nullopt;
  return std::string(text.substr(0, text.size() - 1));
}

std::optional<std::vector<DeviceRecord>> DecodeDevicesReply(std::span<const std::byte> reply) {
  const auto payload = PayloadOf(reply, ReplyType::kDevices);
  if (!payload) return std::nullopt;
  const std::uint64_t records = std::max<std::uint64_t>(payload->count, 1);
  if (payload->bytes.size() != records * kDeviceRecordSize) return std::nullopt;
  std::vector<DeviceRecord> devices;
  devices.reserve(payload->count);
  for (std::size_t i = 0; i < payload->count; ++i) {
    devices.push_back(
        DecodeDeviceRecord(payload->bytes.subspan(i * kDeviceRecordSize, kDeviceRecordSize)));
  }
  return devices;
}

std::optional<std::vector<DeviceItem>> DecodeItemsReply(std::span<const std::byte> reply) {
  const auto payload = PayloadOf(reply, ReplyType::kItems);
  if (!payload) return std::nullopt;
  std::vector<DeviceItem> items;
  if (payload->count == 0) {
    if (payload->bytes.size() != kEmptyItemsSize) return std::nullopt;
    return items;
  }
  if (payload->count != payload->bytes.size()) return std::nullopt;

  ByteReader reader(payload->bytes);
  while (reader.remaining() > 0) {
    DeviceItem item;
    item.serial = reader.U32Little();
    // The length of an entry stands inside it, at the end of its fixed part.
    const auto words = reader.Take(kItemWordsSize);
    const std::uint32_t bodyLength = U32BigAt(words, kItemBodyLengthAt);
    if (!reader.ok() || bodyLength < kItemWordsSize - kItemHeaderSize) return std::nullopt;
    const auto content = reader.Take(bodyLength - (kItemWordsSize - kItemHeaderSize));
    if (!reader.ok()) return std::nullopt;
    item.hashLength = U32BigAt(words, 0);
    item.nextOffset = U32BigAt(words, kItemNextOffsetAt);
    item.bytes.reserve(words.size() + content.size());
    item.bytes.insert(item.bytes.end(), words.begin(), words.end());
    item.bytes.insert(item.bytes.end(), content.begin(), content.end());
    items.push_back(std::move(item));
  }
  return items;
}

}  // namespace talvorn
