// What clients and the locator say to each other through mailslots. Numbers of the
// framing are 32-bit unsigned, little-endian.
//
// Request, client to locator:          Reply, locator to client:
//   offset size                          offset size
//        0    4 not read                      0    4 total length in bytes
//        4    4 message type, 1               4    4 reply type
//        8  132 reply mailslot, UTF-16        8    4 count or size, by type
//      140      command, narrow text         12      payload
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mailslot_name.h"

namespace talvorn {

inline const std::u16string kDefaultReplyMailslot = platform::MailslotName(u"talvorn_in");

inline constexpr std::string_view kGetVersion = "GETVERSION";
inline constexpr std::string_view kGetInfo = "GETINFO";
inline constexpr std::string_view kGetItems = "GETITEMS";
inline constexpr std::string_view kSetLogPath = "SETLOGPATH";
inline constexpr std::string_view kGetLogPath = "GETLOGPATH";
inline constexpr std::string_view kStartLog = "STARTLOG";
inline constexpr std::string_view kStopLog = "STOPLOG";

// Named objects that the two sides share.
inline constexpr std::u16string_view kServiceMutex = u"TALVORN-Service";
inline constexpr std::u16string_view kClientMutex = u"TALVORN-LOCATOR-IN-USE";
inline constexpr std::u16string_view kLogModeEvent = u"Global\\DRAVIK_LOGMODE";
inline constexpr std::u16string_view kLogModeMutex = u"MUTEX_LOGMODE";

inline constexpr std::uint32_t kRequestType = 1;
enum class ReplyType : std::uint32_t {
  kUnknownCommand = 0,
  kVersion = 2,
  kDevices = 3,
  kItems = 4,
  kLogPath = 5,
};

inline constexpr std::size_t kReplyNameOffset = 8;
inline constexpr std::size_t kReplyNameSize = 132;      // bytes
inline constexpr std::size_t kReplyNameMaxLength = 63;  // characters
inline constexpr std::size_t kCommandOffset = 140;
inline constexpr std::size_t kCommandMaxLength = 1'023;  // characters

struct Request {
  std::u16string replyMailslot;  // empty: the default
  std::string command;
};

// None when the message is outside the limits of the format: another message type,
// a reply name or a command that is too long or not terminated in the message.
[[nodiscard]] std::optional<Request> DecodeRequest(std::span<const std::byte> message);
// None when the name or the command is too long.
[[nodiscard]] std::optional<std::vector<std::byte>> EncodeRequest(const Request& request);

inline constexpr std::size_t kReplyHeaderSize = 12;

struct ReplyHeader {
  std::uint32_t totalLength = 0;
  ReplyType type = ReplyType::kUnknownCommand;
  std::uint32_t count = 0;
};

// The header of a reply that is as long as it says; none for anything else.
[[nodiscard]] std::optional<ReplyHeader> DecodeReplyHeader(std::span<const std::byte> reply);
void EncodeReplyHeader(const ReplyHeader& header, std::span<std::byte> reply);

}  // namespace talvorn
