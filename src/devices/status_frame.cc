#include "devices/status_frame.h"

#include <algorithm>

#include "devices/item_record.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

constexpr std::string_view kCommand = "DEVICE STATUS;";
constexpr std::size_t kCommandWidth = 81;
constexpr std::size_t kTypeAt = 4;
constexpr int kAttempts = 3;
constexpr std::uint32_t kAttemptPauseMs = 10;
// So long a device holds up the others' cycle, and the end of the process, at most.
constexpr std::uint64_t kReceiveLimitMs = 60'000;

// Bytes from the first item of `chain` to the end of its last one; none when an item
// lies outside. The chain's own end may still do so.
std::optional<std::uint64_t> ChainLength(std::span<const std::byte> chain) {
  std::uint64_t start = 0;
  for (;;) {
    if (start + kItemWordsSize > chain.size()) return std::nullopt;
    const auto item = chain.subspan(static_cast<std::size_t>(start));
    const std::uint32_t nextOffset = U32BigAt(item, kItemNextOffsetAt);
    if (nextOffset == 0) return start + kItemHeaderSize + U32BigAt(item, kItemBodyLengthAt);
    start += nextOffset;
  }
}

}  // namespace

std::array<std::byte, kStatusRequestSize> EncodeStatusRequest(std::string_view sid) {
  std::array<char, kCommandWidth> command{};
  const auto end = std::ranges::copy(kCommand, command.begin()).out;
  std::copy_n(sid.begin(), std::min(sid.size(), kCommandWidth - 1 - kCommand.size()), end);
  std::array<std::byte, kStatusRequestSize> frame{};
  ByteWriter writer(frame);
  writer.U32Big(kStatusRequestSize);
  writer.U32Big(kStatusRequestType);
  writer.U32Big(0);
  writer.Bytes(std::as_bytes(std::span(command)));
  return frame;
}

FrameReceiver::Frame FrameReceiver::ReceiveFrame() {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (attempt > 0) clock_.Sleep(kAttemptPauseMs);
    if (auto frame = Attempt()) return std::move(*frame);
  }
  carryOver_.clear();
  return {};
}

void FrameReceiver::ReceiveFrames(const std::function<void(Frame&)>& handle,
                                  const std::function<std::uint64_t()>& nowMs) {
  const std::uint64_t start = nowMs();
  Frame frame;
  do {
    frame = ReceiveFrame();
    handle(frame);
  } while (frame.result == Result::kMore && nowMs() - start < kReceiveLimitMs);
}

std::optional<FrameReceiver::Frame> FrameReceiver::Attempt() {
  std::array<std::byte, kBufferSize> buffer{};
  const std::size_t carried = carryOver_.size();
  std::ranges::copy(carryOver_, buffer.begin());
  const auto received = stream_.Receive(std::span(buffer).subspan(carried));
  if (!received) return std::nullopt;  // what was carried over waits for the next attempt
  carryOver_.clear();

  const auto inHand = std::span(buffer).first(carried + *received);
  if (inHand.empty()) {
    clock_.Sleep(kAttemptPauseMs);
    return Frame{.result = Result::kClosed, .record = {}, .items = {}};
  }
  if (inHand.size() < kShortestReply)
    return Frame{.result = Result::kMore, .record = {}, .items = {}};
  if (U32BigAt(inHand, kTypeAt) != kStatusReplyType) return std::nullopt;
  return Deliver(inHand);
}

std::optional<FrameReceiver::Frame> FrameReceiver::Deliver(std::span<const std::byte> inHand) {
  const auto record = inHand.subspan(kReplyRecordAt);
  Frame frame{.result = Result::kComplete, .record = DecodeDeviceRecord(record), .items = {}};
  const std::uint32_t itemOffset = frame.record->itemOffset;
  if (itemOffset == 0) return frame;

  if (itemOffset > record.size()) return std::nullopt;
  const auto chain = record.subspan(itemOffset);
  const auto length = ChainLength(chain);
  if (!length || *length > kItemCapacity || *length > chain.size() ||
      kShortestReply + *length > inHand.size()) {
    return std::nullopt;
  }
  const auto items = chain.first(static_cast<std::size_t>(*length));
  frame.items.assign(items.begin(), items.end());
  const auto rest = inHand.subspan(kShortestReply + items.size());
  carryOver_.assign(rest.begin(), rest.end());
  if (!rest.empty()) frame.result = Result::kMore;
  return frame;
}

}  // namespace talvorn
