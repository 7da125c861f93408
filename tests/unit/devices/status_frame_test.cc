#include "devices/status_frame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

namespace talvorn {
namespace {

using Result = FrameReceiver::Result;

// A clock on which sleeping costs nothing but is counted.
class CountingClock final : public platform::Clock {
 public:
  FileTime SystemTime() override { return 0; }
  FileTime LocalTime() override { return 0; }
  void Sleep(std::uint32_t milliseconds) override { slept += milliseconds; }
  void WaitUntil(FileTime, const platform::Waitable&) override {}

  std::uint32_t slept = 0;
};

const std::string kSilence = "silence";
const std::string kEnd;

// What a device sends, one piece for each receive; then nothing comes in time.
class Script final : public ByteStream {
 public:
  explicit Script(std::vector<std::string> pieces) : pieces_(std::move(pieces)) {}

  std::optional<std::size_t> Receive(std::span<std::byte> buffer) override {
    if (next_ == pieces_.size()) return std::nullopt;
    const std::string& piece = pieces_[next_++];
    if (piece == kSilence) return std::nullopt;
    const std::size_t size = std::min(piece.size(), buffer.size());
    std::memcpy(buffer.data(), piece.data(), size);
    return size;
  }

 private:
  std::vector<std::string> pieces_;
  std::size_t next_ = 0;
};

std::string Big(std::uint32_t value) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) text += static_cast<char>(value >> shift);
  return text;
}

// A reply whose record says `itemOffset`; what follows the record is `chain`.
std::string Reply(std::uint32_t itemOffset, const std::string& chain = {},
                  std::uint32_t type = kStatusReplyType) {
  std::string record(kDeviceRecordSize, '\0');
  record.replace(16, 4, Big(itemOffset));
  return Big(1) + Big(type) + Big(0) + record + chain;
}

// `size` bytes, of which 24 are the words.
std::string Item(std::uint32_t size, std::uint32_t next = 0) {
  return Big(size) + std::string(12, 'c') + Big(next) + Big(size - 20) +
         std::string(size - 24, 'b');
}

constexpr std::uint32_t kBehindRecord = kDeviceRecordSize;

std::string WithItem(std::uint32_t size) { return Reply(kBehindRecord, Item(size)); }

TEST(FrameReceiver, CutsRepliesOutOfWhateverComes) {
  struct Expected {
    Result result;
    int items;  // bytes of the chain; none when no record was delivered
    std::uint32_t slept;
  };
  constexpr int kNone = -1;
  const std::string plain = Reply(0);
  const std::string two = Item(60, 60) + Item(60);
  const std::string hole = Item(60, 64) + "hole" + Item(60);
  const struct {
    const char* name;
    std::vector<std::string> pieces;
    std::vector<Expected> frames;
  } kCases[] = {
      {"plain", {plain}, {{Result::kComplete, 0, 0}}},
      {"more behind it", {plain + "more"}, {{Result::kComplete, 0, 0}}},
      {"items", {Reply(kBehindRecord, two)}, {{Result::kComplete, 120, 0}}},
      {"a hole between", {Reply(kBehindRecord, hole)}, {{Result::kComplete, 124, 0}}},
      {"a hole before", {Reply(380, std::string(13, 'h') + Item(60))}, {{Result::kMore, 60, 0}}},
      {"two", {WithItem(50) + plain, kEnd}, {{Result::kMore, 50, 0}, {Result::kComplete, 0, 0}}},
      {"two, cut",
       {WithItem(50) + plain.substr(0, 100), kSilence, plain.substr(100)},
       {{Result::kMore, 50, 0}, {Result::kComplete, 0, 10}}},
      {"too short",
       {plain.substr(0, 378), plain.substr(378)},
       {{Result::kMore, kNone, 0}, {Result::kMore, kNone, 0}}},
      {"largest", {WithItem(1'121)}, {{Result::kComplete, 1'121, 0}}},
      {"too large", {WithItem(1'122)}, {{Result::kFailed, kNone, 20}}},
      {"outside", {Reply(kBehindRecord, Item(60, 60))}, {{Result::kFailed, kNone, 20}}},
      {"far away", {Reply(kBehindRecord, Item(60, ~0u))}, {{Result::kFailed, kNone, 20}}},
      {"itself for ever", {Reply(kBehindRecord, Item(60, 1))}, {{Result::kFailed, kNone, 20}}},
      {"no items there", {Reply(~0u)}, {{Result::kFailed, kNone, 20}}},
      {"cut item", {WithItem(60).substr(0, 438)}, {{Result::kFailed, kNone, 20}}},
      {"another type first", {Reply(0, {}, 6), kSilence, plain}, {{Result::kComplete, 0, 20}}},
      {"never a reply",
       {Reply(0, {}, 0), Reply(0, {}, 6), Reply(0, {}, 7), plain},
       {{Result::kFailed, kNone, 20}, {Result::kComplete, 0, 0}}},
      {"closed", {kEnd}, {{Result::kClosed, kNone, 10}}},
      {"silence", {}, {{Result::kFailed, kNone, 20}}},
  };
  for (const auto& one : kCases) {
    SCOPED_TRACE(one.name);
    Script script(one.pieces);
    CountingClock clock;
    FrameReceiver receiver(script, clock);
    for (const Expected& expected : one.frames) {
      clock.slept = 0;
      const FrameReceiver::Frame frame = receiver.ReceiveFrame();
      EXPECT_EQ(frame.result, expected.result);
      EXPECT_EQ(frame.record.has_value() ? static_cast<int>(frame.items.size()) : kNone,
                expected.items);
      EXPECT_EQ(clock.slept, expected.slept);
    }
  }
}

// A device that sends on and on holds nobody up for longer than a minute.
TEST(FrameReceiver, TakesRepliesForAMinuteAtMost) {
  Script endless(std::vector<std::string>(100, WithItem(50) + "x"));
  CountingClock clock;
  FrameReceiver receiver(endless, clock);
  std::uint64_t now = 5'000;
  int taken = 0;
  receiver.ReceiveFrames(
      [&](FrameReceiver::Frame& frame) {
        taken += frame.record.has_value() ? 1 : 0;
        now += 10'000;
      },
      [&now] { return now; });
  EXPECT_EQ(taken, 6);
}

}  // namespace
}  // namespace talvorn
