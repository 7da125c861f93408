// Reply frames that arrive in pieces: the first bytes of the input say how the rest is
// cut. What is delivered is a whole chain of items, and reading ends.
#include <algorithm>

#include "devices/item_record.h"
#include "devices/status_frame.h"
#include "fuzz_target.h"

namespace {

using namespace talvorn;

class NoSleepClock final : public platform::Clock {
 public:
  FileTime SystemTime() override { return 0; }
  FileTime LocalTime() override { return 0; }
  void Sleep(std::uint32_t /*milliseconds*/) override {}
  void WaitUntil(FileTime /*deadline*/, const platform::Waitable& /*wake*/) override {}
};

class PiecewiseStream final : public ByteStream {
 public:
  PiecewiseStream(std::span<const std::byte> sizes, std::span<const std::byte> data)
      : sizes_(sizes), rest_(data) {}

  std::optional<std::size_t> Receive(std::span<std::byte> buffer) override {
    if (rest_.empty()) return ++idle_ % 2 == 0 ? std::optional<std::size_t>(0) : std::nullopt;
    const std::size_t wanted =
        sizes_.empty() ? rest_.size()
                       : 8 * std::to_integer<std::size_t>(sizes_[next_++ % sizes_.size()]) + 1;
    const std::size_t size = std::min({wanted, rest_.size(), buffer.size()});
    std::ranges::copy(rest_.first(size), buffer.begin());
    rest_ = rest_.subspan(size);
    return size;
  }

 private:
  std::span<const std::byte> sizes_;
  std::span<const std::byte> rest_;
  std::size_t next_ = 0;
  int idle_ = 0;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto input = std::as_bytes(std::span(data, size));
  const std::size_t cuts = std::min<std::size_t>(size, 4);
  PiecewiseStream stream(input.first(cuts), input.subspan(cuts));
  NoSleepClock clock;
  FrameReceiver receiver(stream, clock);
  FrameReceiver::Result result = FrameReceiver::Result::kMore;
  for (std::size_t calls = 0; result == FrameReceiver::Result::kMore; ++calls) {
    FUZZ_EXPECT(calls <= size + 1);
    const FrameReceiver::Frame frame = receiver.ReceiveFrame();
    result = frame.result;
    FUZZ_EXPECT(frame.items.size() <= kItemCapacity);
    FUZZ_EXPECT(frame.record || frame.items.empty());
    FUZZ_EXPECT(result == FrameReceiver::Result::kMore ||
                frame.record.has_value() == (result == FrameReceiver::Result::kComplete));
  }
  return 0;
}
