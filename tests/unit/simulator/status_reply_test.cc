#include "simulator/status_reply.h"

#include <gtest/gtest.h>

#include <deque>

#include "devices/item_record.h"
#include "devices/status_frame.h"
#include "testing/instant_clock.h"

namespace talvorn {
namespace {

using Bytes = std::vector<std::byte>;

const DeviceModel& Devices() {
  static const DeviceModel model({.devices = 3, .firstSerial = 70, .items = 2, .itemSize = 80},
                                 {.ipv4 = {"10.1.0.1", "10.1.0.2"}, .ipv6 = {"fd00::1"}});
  return model;
}

// The stream of a reply as a locator reads it, one piece at a time.
class Pieces final : public ByteStream {
 public:
  explicit Pieces(const StatusReply& reply) : reply_(reply) { Refill(reply_.bytes); }

  std::optional<std::size_t> Receive(std::span<std::byte> buffer) override {
    if (pieces_.empty()) {
      if (reply_.repeated.empty())
        return reply_.closes ? std::optional<std::size_t>(0) : std::nullopt;
      Refill(reply_.repeated);
    }
    Bytes piece = pieces_.front();
    pieces_.pop_front();
    const std::size_t size = std::min(buffer.size(), piece.size());
    std::copy_n(piece.begin(), size, buffer.begin());
    if (size < piece.size())
      pieces_.emplace_front(piece.begin() + static_cast<std::ptrdiff_t>(size), piece.end());
    return size;
  }

 private:
  void Refill(const Bytes& bytes) {
    const std::size_t step = reply_.pieceSize == 0 ? bytes.size() : reply_.pieceSize;
    for (std::size_t at = 0; at < bytes.size(); at += step) {
      const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at);
      pieces_.emplace_back(begin,
                           begin + static_cast<std::ptrdiff_t>(std::min(step, bytes.size() - at)));
    }
  }

  const StatusReply reply_;
  std::deque<Bytes> pieces_;
};

// The serials of what a locator takes of a device's reply, each with the size of its
// items.
std::string Taken(StatusFault fault, std::uint32_t device = 0) {
  Pieces stream(MakeStatusReply(Devices(), device, 0, fault));
  testing::InstantClock clock;
  FrameReceiver receiver(stream, clock);
  std::string taken;
  for (;;) {
    const FrameReceiver::Frame frame = receiver.ReceiveFrame();
    if (frame.record) {
      taken += frame.record->deviceSerial.view();
      taken.append("+").append(std::to_string(frame.items.size())).append(" ");
    }
    if (frame.result != FrameReceiver::Result::kMore) return taken;
  }
}

TEST(StatusReply, SaysWhatTheDeviceIs) {
  const StatusReply reply = MakeStatusReply(Devices(), 1, 0, StatusFault::kNone);
  const std::string_view text = AsText(reply.bytes);
  ASSERT_EQ(text.size(), 579u);  // 12 + 367 + 2 items of 20 + 80
  EXPECT_EQ(text.substr(0, 12), std::string_view("\0\0\2\x43\x80\0\0\6\0\0\0\0", 12));
  EXPECT_EQ(text.substr(12, 20), std::string_view("\0\0\1\x6FTALVORN\000101\0\0\0\1\x6F", 20));
  EXPECT_EQ(text.substr(12 + 20, 9), std::string_view("10.1.0.2\0", 9));
  EXPECT_EQ(text[12 + 39], '\0');  // it is asked over IPv4
  EXPECT_EQ(text.substr(12 + 94, 8), std::string_view("0000071\0", 8));
  const Bytes items = Devices().ItemChain(1, 0);
  EXPECT_EQ(text.substr(379), AsText(items));

  const DeviceModel bare({.devices = 1, .layout = RecordLayout::kShort, .items = 2}, {});
  const StatusReply plain = MakeStatusReply(bare, 0, 0, StatusFault::kNone);
  EXPECT_EQ(plain.bytes.size(), 379u);
  EXPECT_EQ(U32BigAt(plain.bytes, 12 + 16), 0u);
}

TEST(StatusReply, FaultsCostALocatorWhatTheySay) {
  EXPECT_EQ(Taken(StatusFault::kNone), "0000070+200 ");
  EXPECT_EQ(Taken(StatusFault::kTwoFrames), "0000070+200 0000071+200 ");
  EXPECT_EQ(Taken(StatusFault::kTwoFrames, 2), "0000072+200 0000070+200 ");
  for (const StatusFault fault :
       {StatusFault::kSilent, StatusFault::kPieces, StatusFault::kLongChain,
        StatusFault::kEndlessChain, StatusFault::kEarlyClose, StatusFault::kOtherType,
        StatusFault::kDrip}) {
    EXPECT_EQ(Taken(fault), "") << static_cast<int>(fault);
  }
}

TEST(StatusReply, FaultsAreWhatTheyAreCalled) {
  const auto bytes = [](StatusFault fault) {
    return MakeStatusReply(Devices(), 0, 0, fault).bytes;
  };
  const Bytes usual = bytes(StatusFault::kNone);
  EXPECT_EQ(bytes(StatusFault::kPieces), usual);
  EXPECT_EQ(bytes(StatusFault::kDrip), usual);
  EXPECT_EQ(bytes(StatusFault::kLongChain).size(), 379u + 1'501u);
  EXPECT_EQ(U32BigAt(bytes(StatusFault::kOtherType), 4), 6u);

  // No item of the endless chain is the last one, however far it is followed.
  const StatusReply endless = MakeStatusReply(Devices(), 0, 0, StatusFault::kEndlessChain);
  Bytes chain(endless.bytes.begin() + 379, endless.bytes.end());
  for (int i = 0; i < 3; ++i)
    chain.insert(chain.end(), endless.repeated.begin(), endless.repeated.end());
  std::size_t items = 0;
  ForEachItem(chain, [&](const ItemView& item) {
    EXPECT_NE(item.nextOffset, 0u);
    ++items;
  });
  EXPECT_EQ(items, chain.size() / 100);
}

TEST(StatusRequest, IsReadAndItsMistakesAreSaid) {
  const std::string sid = "01234567-89ab-cdef-0123-456789abcdef";
  const auto good = EncodeStatusRequest("SID=" + sid);
  EXPECT_EQ(ParseStatusRequest(good).sid, sid);
  EXPECT_EQ(ParseStatusRequest(good).mistake, "");
  // Every byte counts.
  for (std::size_t i = 0; i < good.size(); ++i) {
    auto wrong = good;
    wrong[i] ^= std::byte{0x40};
    EXPECT_NE(ParseStatusRequest(wrong).mistake, "") << i;
  }
  for (std::size_t size = 0; size < good.size(); ++size)
    EXPECT_NE(ParseStatusRequest(std::span(good).first(size)).mistake, "") << size;
}

}  // namespace
}  // namespace talvorn
