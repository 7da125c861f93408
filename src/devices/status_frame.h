// The frames of the status query that static devices answer over TCP; numbers are
// big-endian.
//
// Request, 175 bytes:                      Reply:
//   offset width                             offset       width
//        0     4 length, 175                      0           4 length, not examined
//        4     4 type, 6                          4           4 type, 0x80000006
//        8     4 0                                8           4 not examined
//       12    81 command text, terminated        12         367 device record
//       93    82 zero                       12 + itemOffset     item records
//
// A reply frame is taken to be 379 bytes and the length of its item chain long; what
// follows it in the stream begins the next frame.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "devices/device_record.h"
#include "support/file_time.h"

namespace talvorn {

inline constexpr std::uint16_t kStatusPort = 4817;
inline constexpr std::size_t kStatusRequestSize = 175;
inline constexpr std::size_t kReplyRecordAt = 12;
inline constexpr std::size_t kShortestReply = kReplyRecordAt + kDeviceRecordSize;
inline constexpr std::size_t kItemCapacity = 1'500;
inline constexpr std::uint32_t kStatusRequestType = 6;
inline constexpr std::uint32_t kStatusReplyType = 0x80000006;

// `sid` is "SID=" and a UUID text; it is cut to what the command field holds.
[[nodiscard]] std::array<std::byte, kStatusRequestSize> EncodeStatusRequest(std::string_view sid);

// What frames are received from.
class ByteStream {
 public:
  virtual ~ByteStream() = default;
  // Waits for bytes and puts as many as there are into `buffer`. Their number, 0 when
  // the peer has closed; none on an error or when nothing comes in time.
  virtual std::optional<std::size_t> Receive(std::span<std::byte> buffer) = 0;

 protected:
  ByteStream() = default;
  ByteStream(const ByteStream&) = default;
  ByteStream& operator=(const ByteStream&) = default;
};

// Cuts a stream into reply frames.
class FrameReceiver {
 public:
  enum class Result {
    kComplete = 0,  // a reply was delivered, nothing is pending
    kFailed = 1,    // three attempts passed without a reply
    kMore = 2,      // bytes are pending, or too few for a reply came and were dropped
    kClosed = 3,    // the peer closed and no bytes were in hand
  };
  struct Frame {
    Result result = Result::kFailed;
    std::optional<DeviceRecord> record;  // none when nothing was delivered
    std::vector<std::byte> items;        // the record's item chain, at most 1500 bytes
  };

  explicit FrameReceiver(ByteStream& stream, Clock& clock = platform::SystemClock())
      : stream_(stream), clock_(clock) {}

  [[nodiscard]] Frame ReceiveFrame();

  // Frames for as long as there are more, each given to `handle`; a device that sends on
  // and on is listened to for a minute. `nowMs` is a clock that nobody sets.
  void ReceiveFrames(const std::function<void(Frame&)>& handle,
                     const std::function<std::uint64_t()>& nowMs = platform::MonotonicMs);

 private:
  static constexpr std::size_t kBufferSize = 1'500;

  // One attempt; none when it failed.
  std::optional<Frame> Attempt();
  std::optional<Frame> Deliver(std::span<const std::byte> inHand);

  ByteStream& stream_;
  Clock& clock_;
  std::vector<std::byte> carryOver_;  // bytes behind the last frame that was delivered
};

}  // namespace talvorn
