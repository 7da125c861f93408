#include "exchange/messages/messages.h"

#include "support/byte_io.h"

namespace talvorn {

std::optional<Request> DecodeRequest(std::span<const std::byte> message) {
  ByteReader reader(message);
  reader.Skip(4);
  if (reader.U32Little() != kRequestType || !reader.ok()) return std::nullopt;

  Request request;
  ByteReader name(reader.Take(kReplyNameSize));
  for (std::uint16_t unit = name.U16Little(); unit != 0; unit = name.U16Little())
    request.replyMailslot.push_back(static_cast<char16_t>(unit));
  if (!name.ok() || request.replyMailslot.size() > kReplyNameMaxLength) return std::nullopt;

  const std::string_view field = AsText(reader.Take(reader.remaining()));
  const std::size_t length = field.find('\0');
  if (length == std::string_view::npos || length > kCommandMaxLength) return std::nullopt;
  request.command = field.substr(0, length);
  return request;
}

std::optional<std::vector<std::byte>> EncodeRequest(const Request& request) {
  if (request.replyMailslot.size() > kReplyNameMaxLength ||
      request.command.size() > kCommandMaxLength) {
    return std::nullopt;
  }
  std::vector<std::byte> message(kCommandOffset + request.command.size() + 1);
  ByteWriter writer(message);
  writer.U32Little(0);
  writer.U32Little(kRequestType);
  for (const char16_t unit : request.replyMailslot) writer.U16Little(unit);
  writer.Zero(kCommandOffset - writer.written());
  writer.Text(request.command, request.command.size() + 1);
  return message;
}

std::optional<ReplyHeader> DecodeReplyHeader(std::span<const std::byte> reply) {
  ByteReader reader(reply);
  ReplyHeader header;
  header.totalLength = reader.U32Little();
  header.type = static_cast<ReplyType>(reader.U32Little());
  header.count = reader.U32Little();
  if (!reader.ok() || header.totalLength != reply.size()) return std::nullopt;
  return header;
}

void EncodeReplyHeader(const ReplyHeader& header, std::span<std::byte> reply) {
  ByteWriter writer(reply);
  writer.U32Little(header.totalLength);
  writer.U32Little(static_cast<std::uint32_t>(header.type));
  writer.U32Little(header.count);
}

}  // namespace talvorn
