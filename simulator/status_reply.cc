#include "simulator/status_reply.h"

#include <algorithm>
#include <string_view>

#include "command_line/concat.h"
#include "devices/item_record.h"
#include "devices/status_frame.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

using Bytes = std::vector<std::byte>;

constexpr std::string_view kCommand = "DEVICE STATUS;SID=";
constexpr std::size_t kCommandWidth = 81;
constexpr std::string_view kUuidForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";

constexpr std::size_t kPieceSize = 100;
constexpr std::uint32_t kPieceMs = 100;
constexpr std::uint32_t kDripMs = 1'000;
constexpr std::uint32_t kEndlessItem = 100;
constexpr std::uint32_t kEndlessItems = 11;  // in one piece; with the record they fill a segment

bool IsUuidText(std::string_view text) {
  return std::ranges::equal(text, kUuidForm, [](char c, char form) {
    return form == 'x' ? std::string_view("0123456789abcdef").find(c) != std::string_view::npos
                       : c == form;
  });
}

bool IsZero(std::span<const std::byte> bytes) {
  return std::ranges::all_of(bytes, [](std::byte b) { return b == std::byte{0}; });
}

Bytes Frame(std::uint32_t type, DeviceRecord record, std::span<const std::byte> items) {
  record.deviceIpv6.Assign("");
  record.itemOffset = items.empty() ? 0 : kDeviceRecordSize;
  Bytes frame(kShortestReply);
  ByteWriter writer(frame);
  writer.U32Big(static_cast<std::uint32_t>(kShortestReply + items.size()));
  writer.U32Big(type);
  writer.U32Big(0);
  EncodeDeviceRecord(record, std::span(frame).subspan<kReplyRecordAt, kDeviceRecordSize>());
  frame.insert(frame.end(), items.begin(), items.end());
  return frame;
}

// An item of that many bytes.
Bytes PlainItem(std::size_t size, std::uint32_t nextOffset) {
  Bytes item(size, std::byte{'x'});
  ByteWriter writer(item);
  writer.U32Big(static_cast<std::uint32_t>(size));
  writer.Zero(12);
  writer.U32Big(nextOffset);
  writer.U32Big(static_cast<std::uint32_t>(size - kItemHeaderSize));
  return item;
}

Bytes Repeated(const Bytes& bytes, std::uint32_t count) {
  Bytes whole;
  for (std::uint32_t i = 0; i < count; ++i) whole.insert(whole.end(), bytes.begin(), bytes.end());
  return whole;
}

}  // namespace

StatusRequest ParseStatusRequest(std::span<const std::byte> bytes) {
  StatusRequest request;
  if (bytes.size() != kStatusRequestSize) {
    request.mistake = Concat({std::to_string(bytes.size()), " bytes"});
    return request;
  }
  ByteReader reader(bytes);
  const std::uint32_t length = reader.U32Big();
  const std::uint32_t type = reader.U32Big();
  const std::uint32_t unused = reader.U32Big();
  const auto field = reader.Take(kCommandWidth);
  const auto rest = reader.Take(reader.remaining());

  const std::string_view command = AsText(field).substr(0, AsText(field).find('\0'));
  if (command.starts_with(kCommand)) request.sid = command.substr(kCommand.size());
  if (length != kStatusRequestSize)
    request.mistake = "a wrong length";
  else if (type != kStatusRequestType)
    request.mistake = Concat({"the type ", std::to_string(type)});
  else if (request.sid.empty())
    request.mistake = "another command";
  else if (!IsUuidText(request.sid))
    request.mistake = "an SID that is no UUID text";
  else if (unused != 0 || !IsZero(field.subspan(command.size())) || !IsZero(rest))
    request.mistake = "bytes that are not zero where nothing is";
  return request;
}

StatusReply MakeStatusReply(const DeviceModel& model, std::uint32_t device, std::uint64_t nowMs,
                            StatusFault fault) {
  const auto replyOf = [&](std::uint32_t one) {
    return Frame(kStatusReplyType, model.Record(one, nowMs), model.ItemChain(one, nowMs));
  };
  const DeviceRecord record = model.Record(device, nowMs);
  StatusReply reply;
  reply.bytes = replyOf(device);
  switch (fault) {
    case StatusFault::kNone:
      break;
    case StatusFault::kSilent:
      reply.bytes.clear();
      break;
    case StatusFault::kPieces:
      reply.pieceSize = kPieceSize;
      reply.pauseMs = kPieceMs;
      break;
    case StatusFault::kTwoFrames: {
      const Bytes second = replyOf((device + 1) % model.count());
      reply.bytes.insert(reply.bytes.end(), second.begin(), second.end());
      reply.closes = true;
      break;
    }
    case StatusFault::kLongChain:
      reply.bytes = Frame(kStatusReplyType, record, PlainItem(kItemCapacity + 1, 0));
      break;
    case StatusFault::kEndlessChain:
      reply.repeated = Repeated(PlainItem(kEndlessItem, kEndlessItem), kEndlessItems);
      reply.bytes = Frame(kStatusReplyType, record, reply.repeated);
      reply.pauseMs = kPieceMs;
      break;
    case StatusFault::kEarlyClose:
      reply.bytes.resize(kShortestReply / 2);
      reply.closes = true;
      break;
    case StatusFault::kOtherType:
      reply.bytes = Frame(kStatusRequestType, record, {});
      break;
    case StatusFault::kDrip:
      reply.pieceSize = 1;
      reply.pauseMs = kDripMs;
      break;
  }
  return reply;
}

}  // namespace talvorn
