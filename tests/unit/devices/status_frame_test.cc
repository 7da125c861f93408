#include "devices/status_frame.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "devices/testing_items.h"
#include "support/byte_io.h"
#include "testing/instant_clock.h"

namespace talvorn {
namespace {

using Bytes = std::vector<std::byte>;
using Result = FrameReceiver::Result;
using testing::MakeItem;

// Delivers its segments one per call, then closes, or times out for ever.
class ScriptedStream final : public ByteStream {
 public:
  enum class End { kClose, kTimeout };
  ScriptedStream(std::initializer_list<Bytes> segments, End end) : segments_(segments), end_(end) {}

  std::optional<std::size_t> Receive(std::span<std::byte> buffer) override {
    ++calls;
    if (segments_.empty())
      return end_ == End::kClose ? std::optional<std::size_t>(0) : std::nullopt;
    Bytes& segment = segments_.front();
    const std::size_t size = std::min(buffer.size(), segment.size());
    std::copy_n(segment.begin(), size, buffer.begin());
    segment.erase(segment.begin(), segment.begin() + static_cast<std::ptrdiff_t>(size));
    if (segment.empty()) segments_.pop_front();
    return size;
  }

  int calls = 0;

 private:
  std::deque<Bytes> segments_;
  End end_;
};

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes whole;
  for (const Bytes& part : parts) whole.insert(whole.end(), part.begin(), part.end());
  return whole;
}

Bytes Reply(std::string_view serial, const Bytes& items = {}) {
  DeviceRecord record;
  record.deviceSerial.Assign(serial);
  record.itemOffset = items.empty() ? 0 : 367;
  Bytes frame(kShortestReply);
  ByteWriter writer(frame);
  writer.U32Big(0xEEEEEEEE);
  writer.U32Big(kStatusReplyType);
  writer.U32Big(0xEEEEEEEE);
  EncodeDeviceRecord(record, std::span(frame).subspan<kReplyRecordAt, kDeviceRecordSize>());
  return Join({frame, items});
}

Bytes Cut(const Bytes& bytes, std::size_t from, std::size_t size) {
  const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(from);
  return {begin, begin + static_cast<std::ptrdiff_t>(size)};
}

// Result and serial of every call until no more bytes are pending, such as
// "more 1, complete 2".
std::string Received(std::initializer_list<Bytes> segments,
                     ScriptedStream::End end = ScriptedStream::End::kTimeout) {
  ScriptedStream stream(segments, end);
  testing::InstantClock clock;
  FrameReceiver receiver(stream, clock);
  constexpr const char* kNames[] = {"complete", "failed", "more", "closed"};
  std::string text;
  for (;;) {
    const FrameReceiver::Frame frame = receiver.ReceiveFrame();
    if (!text.empty()) text += ", ";
    text += kNames[static_cast<int>(frame.result)];
    if (frame.record) text.append(" ").append(frame.record->deviceSerial.view());
    if (!frame.items.empty()) text += " +" + std::to_string(frame.items.size());
    if (frame.result != Result::kMore) return text;
  }
}

TEST(StatusFrame, TheRequestHasItsFieldsWhereTheWireHasThem) {
  std::string golden("\0\0\0\xAF\0\0\0\6\0\0\0\0", 12);
  golden += "DEVICE STATUS;SID=01234567-89ab-cdef-0123-456789abcdef";
  golden.resize(175);
  EXPECT_EQ(AsText(EncodeStatusRequest("SID=01234567-89ab-cdef-0123-456789abcdef")), golden);
  EXPECT_EQ(EncodeStatusRequest(std::string(500, 'x'))[12 + 80], std::byte{0});
}

TEST(FrameReceiver, DeliversOneReply) {
  EXPECT_EQ(Received({Reply("1")}), "complete 1");
  EXPECT_EQ(Received({Reply("1", MakeItem(80, 1))}), "complete 1 +100");
  const Bytes chain =
      Join({MakeItem(80, 1, 100), MakeItem(80, 2, 110), Bytes(10), MakeItem(30, 3)});
  EXPECT_EQ(Received({Reply("1", chain)}), "complete 1 +260");
}

TEST(FrameReceiver, AReplyBehindAnotherWaitsForFurtherBytes) {
  const Bytes two = Join({Reply("1", MakeItem(80, 1)), Reply("2")});
  EXPECT_EQ(Received({two}, ScriptedStream::End::kClose), "more 1 +100, complete 2");
  EXPECT_EQ(Received({two}), "more 1 +100, failed");
  EXPECT_EQ(Received({two, Bytes(1)}), "more 1 +100, complete 2");
  // Behind a reply without items everything is ignored.
  EXPECT_EQ(Received({Join({Reply("1"), Reply("2")})}), "complete 1");
  // The beginning of a reply is completed by the next segment.
  const Bytes second = Reply("2");
  EXPECT_EQ(
      Received({Join({Reply("1", MakeItem(80, 1)), Cut(second, 0, 200)}), Cut(second, 200, 179)}),
      "more 1 +100, complete 2");
}

TEST(FrameReceiver, BytesTooFewForAReplyAreDropped) {
  const Bytes reply = Reply("1");
  EXPECT_EQ(Received({Cut(reply, 0, 378), Cut(reply, 378, 1)}), "more, more, failed");
  EXPECT_EQ(Received({Cut(reply, 0, 10), reply}), "more, complete 1");
  EXPECT_EQ(Received({}, ScriptedStream::End::kClose), "closed");
}

TEST(FrameReceiver, FramesThatAreNoReplyFailAnAttempt) {
  Bytes other = Reply("1");
  other[4] = std::byte{0};
  EXPECT_EQ(Received({other, Reply("2")}), "complete 2");
  EXPECT_EQ(Received({other, other, Reply("2")}), "complete 2");
  EXPECT_EQ(Received({other, other, other, Reply("2")}), "failed");
}

TEST(FrameReceiver, ChainsAreBoundedByWhatIsInHand) {
  // 1500 bytes is what a receive holds, so the longest chain in hand is 1121 bytes.
  EXPECT_EQ(Received({Reply("1", MakeItem(1'101, 1))}), "complete 1 +1121");
  // What does not fit is lost, and so is the rest of it.
  EXPECT_EQ(Received({Reply("1", MakeItem(1'102, 1))}), "more, failed");
  EXPECT_EQ(Received({Reply("1", MakeItem(1'480, 1))}), "failed");
  EXPECT_EQ(Received({Reply("1", MakeItem(1'481, 1))}), "failed");
  // An item that begins or ends outside, and one that the next is far from.
  EXPECT_EQ(Received({Cut(Reply("1", MakeItem(80, 1)), 0, 478)}), "failed");
  EXPECT_EQ(Received({Cut(Reply("1", MakeItem(80, 1)), 0, 379 + 23)}), "failed");
  EXPECT_EQ(Received({Reply("1", MakeItem(80, 1, 0xFFFFFFFF))}), "failed");
}

TEST(FrameReceiver, GivesUpAfterThreeTimeouts) {
  ScriptedStream stream({}, ScriptedStream::End::kTimeout);
  testing::InstantClock clock;
  FrameReceiver receiver(stream, clock);
  EXPECT_EQ(receiver.ReceiveFrame().result, Result::kFailed);
  EXPECT_EQ(stream.calls, 3);
}

}  // namespace
}  // namespace talvorn
