// Asks one device for its status over TCP: one connection, one request, its replies.
#pragma once

#include <cstdint>
#include <functional>

#include "devices/status_frame.h"

namespace talvorn {

enum class StatusOutcome {
  kAnswered,
  kUnresolved,     // its name has no address
  kRefused,        // nobody accepts connections there, or there is no way to it
  kUnreachable,    // no connection in time
  kSilent,         // connected, but nothing came in time
  kNotUnderstood,  // what came is no reply
};

// `address`, in network byte order, is where the device was asked. The frame has a record.
using TakeStatusReply = std::function<void(std::uint32_t address, FrameReceiver::Frame& frame)>;

// `host` is resolved when `configuredAddress` is 0. Returns when the device has said all it has
// to say.
StatusOutcome ExchangeStatus(const char16_t* host, std::uint32_t configuredAddress,
                             const TakeStatusReply& take);

}  // namespace talvorn
