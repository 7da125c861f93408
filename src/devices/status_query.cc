#include "devices/status_query.h"

#include <array>
#include <optional>
#include <string>

#include "devices/item_record.h"
#include "devices/status_frame.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "platform/uuid.h"
#include "support/completed.h"
#include "support/text_format.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kConnectTimeoutMs = 1'000;
constexpr std::uint32_t kSendTimeoutMs = 1'000;
constexpr std::uint32_t kReceiveTimeoutMs = 1'000;
constexpr int kSendAttempts = 3;
constexpr std::uint32_t kSendPauseMs = 10;
constexpr std::uint32_t kRestMs = 100;
constexpr std::uint32_t kResolveLimitMs = 20'000;
constexpr std::size_t kSidCapacity = 64;

// The TCP connection to a device, with the socket library started while it stands.
class DeviceConnection final : public ByteStream {
 public:
  ~DeviceConnection() override { Close(); }
  DeviceConnection() = default;
  DeviceConnection(const DeviceConnection&) = delete;
  DeviceConnection& operator=(const DeviceConnection&) = delete;

  bool ConnectWithTimeout(const platform::SocketAddress& address) {
    libraryStarted_ = platform::StartSocketLibrary();
    if (!libraryStarted_) return false;
    socket_ =
        platform::Socket::Create(platform::AddressFamily::kIpv4, platform::SocketType::kStream);
    const bool connected = socket_.valid() && Connect(address);
    if (!connected) Close();
    return connected;
  }

  // Waits for room and sends the bytes in one call. True when all of them were sent.
  bool Send(std::span<const std::byte> bytes) {
    return socket_.WaitFor(platform::Readiness::kWritable, kSendTimeoutMs) ==
               platform::WaitStatus::kSignalled &&
           socket_.Send(bytes) == bytes.size();
  }

  std::optional<std::size_t> Receive(std::span<std::byte> buffer) override {
    if (socket_.WaitFor(platform::Readiness::kReadable, kReceiveTimeoutMs) !=
        platform::WaitStatus::kSignalled)
      return std::nullopt;
    return socket_.Receive(buffer);
  }

  void Close() {
    if (socket_.valid()) {
      socket_.ShutdownBoth();
      socket_.Close();
    }
    if (libraryStarted_) platform::StopSocketLibrary();
    libraryStarted_ = false;
  }

 private:
  bool Connect(const platform::SocketAddress& address) {
    switch (socket_.Connect(address)) {
      case platform::ConnectStatus::kConnected:
        return true;
      case platform::ConnectStatus::kFailed:
        return false;
      case platform::ConnectStatus::kPending:
        break;
    }
    // A refused connection may make the socket writable as well.
    return socket_.WaitFor(platform::Readiness::kWritable, kConnectTimeoutMs) ==
               platform::WaitStatus::kSignalled &&
           socket_.ConnectSucceeded();
  }

  platform::Socket socket_;
  bool libraryStarted_ = false;
};

std::string MakeSid() {
  std::array<char, kSidCapacity> text{};
  FormatTextA(text, "SID=%s", platform::NewUuidText());
  return text.data();
}

// IPv4 address in network byte order; none when the name cannot be resolved.
std::optional<std::uint32_t> AddressOf(const StaticDevice& device) {
  if (device.address != 0) return device.address;
  return platform::ResolveHost(device.host.data(), kResolveLimitMs);
}

void SendRequest(DeviceConnection& connection, std::string_view sid) {
  for (int attempt = 0; attempt < kSendAttempts; ++attempt) {
    if (connection.Send(EncodeStatusRequest(sid))) return;
    platform::SleepMs(kSendPauseMs);
  }
}

// Some devices do not know at which address they are reached; the third byte of their
// status tells, also behind the end of its text.
void CorrectAddresses(DeviceRecord& record, std::uint32_t address) {
  if (record.deviceStatus.field()[2] != std::byte{'8'}) return;
  record.deviceIpv4.Assign(platform::Ipv4Text(address));
  record.deviceIpv6.Assign("");
}

void ProcessReply(const StaticDevice& device, std::uint32_t address, FrameReceiver::Frame& frame) {
  DeviceRecord& record = *frame.record;
  CorrectAddresses(record, address);
  {
    const std::lock_guard guard(device.context->responses->lock);
    device.context->responses->Add(&record, device.validity);
  }
  ForEachItem(frame.items, [&](const ItemView& item) {
    const std::lock_guard guard(device.context->items->lock);
    device.context->items->Add(record.numericSerial(), item);
  });
}

void ReceiveReplies(DeviceConnection& connection, const StaticDevice& device,
                    std::uint32_t address) {
  FrameReceiver(connection).ReceiveFrames([&](FrameReceiver::Frame& frame) {
    if (frame.record) ProcessReply(device, address, frame);
  });
}

void Query(const StaticDevice& device) {
  const std::string sid = MakeSid();
  const auto address = AddressOf(device);
  if (!address) return;
  DeviceConnection connection;
  if (!connection.ConnectWithTimeout(platform::SocketAddress::Ipv4(*address, kStatusPort))) return;
  SendRequest(connection, sid);
  ReceiveReplies(connection, device, *address);
}

}  // namespace

std::uint32_t ThreadDeviceStatus(const StaticDevice& device) {
  (void)Completed([&] { Query(device); });
  platform::SleepMs(kRestMs);
  return 0;
}

}  // namespace talvorn
