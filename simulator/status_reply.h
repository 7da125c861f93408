// What a simulated device says to the status query over TCP. Pure code; the sockets
// are in status_server.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "simulator/device_model.h"

namespace talvorn {

// A query as a device sees it.
struct StatusRequest {
  std::string sid;      // the UUID text behind "SID="
  std::string mistake;  // empty when every byte is as it should be
};
[[nodiscard]] StatusRequest ParseStatusRequest(std::span<const std::byte> bytes);

// How a device misbehaves.
enum class StatusFault {
  kNone,
  kSilent,        // says nothing
  kPieces,        // its reply comes in pieces, the first one too short for a reply
  kTwoFrames,     // another reply follows in the same segment, then it closes
  kLongChain,     // the items are longer than a locator takes
  kEndlessChain,  // the items never end
  kEarlyClose,    // closes in the middle of its reply
  kOtherType,     // sends a frame that is no reply
  kDrip,          // a byte a second
};

struct StatusReply {
  std::vector<std::byte> bytes;
  std::size_t pieceSize = 0;        // sent at a time; 0: everything at once
  std::uint32_t pauseMs = 0;        // behind each piece
  std::vector<std::byte> repeated;  // sent behind `bytes` for ever, unless empty
  bool closes = false;              // at the end, instead of waiting for the peer to do so
};

// Of a device over IPv4, at `nowMs`. Devices of the older layout answer with full
// records too: the query knows no other.
[[nodiscard]] StatusReply MakeStatusReply(const DeviceModel& model, std::uint32_t device,
                                          std::uint64_t nowMs, StatusFault fault);

}  // namespace talvorn
