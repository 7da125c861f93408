#include "devices/status_exchange.h"

#include <array>
#include <optional>
#include <string>

#include "platform/address.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "platform/uuid.h"
#include "support/text_format.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kConnectTimeoutMs = 1'000;
constexpr std::uint32_t kSendTimeoutMs = 1'000;
constexpr std::uint32_t kReceiveTimeoutMs = 1'000;
constexpr int kSendAttempts = 3;
constexpr std::uint32_t kSendPauseMs = 10;
constexpr std::uint32_t kResolveLimitMs = 20'000;
constexpr std::size_t kSidCapacity = 64;

// The TCP connection to a device, with the socket library started while it stands.
class DeviceConnection final : public ByteStream {
 public:
  ~DeviceConnection() override { Close(); }
  DeviceConnection() = default;
  DeviceConnection(const DeviceConnection&) = delete;
  DeviceConnection& operator=(const DeviceConnection&) = delete;

  // kAnswered when the connection stands.
  StatusOutcome ConnectWithTimeout(const platform::SocketAddress& address) {
    libraryStarted_ = platform::StartSocketLibrary();
    if (!libraryStarted_) return StatusOutcome::kUnreachable;
    socket_ =
        platform::Socket::Create(platform::AddressFamily::kIpv4, platform::SocketType::kStream);
    const StatusOutcome outcome = socket_.valid() ? Connect(address) : StatusOutcome::kUnreachable;
    if (outcome != StatusOutcome::kAnswered) Close();
    return outcome;
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
    const auto size = socket_.Receive(buffer);
    hasHeard_ = hasHeard_ || size.value_or(0) > 0;
    return size;
  }

  // Anything at all.
  [[nodiscard]] bool hasHeard() const { return hasHeard_; }

  void Close() {
    if (socket_.valid()) {
      socket_.ShutdownBoth();
      socket_.Close();
    }
    if (libraryStarted_) platform::StopSocketLibrary();
    libraryStarted_ = false;
  }

 private:
  StatusOutcome Connect(const platform::SocketAddress& address) {
    switch (socket_.Connect(address)) {
      case platform::ConnectStatus::kConnected:
        return StatusOutcome::kAnswered;
      case platform::ConnectStatus::kFailed:
        return StatusOutcome::kRefused;
      case platform::ConnectStatus::kPending:
        break;
    }
    if (socket_.WaitFor(platform::Readiness::kWritable, kConnectTimeoutMs) !=
        platform::WaitStatus::kSignalled)
      return StatusOutcome::kUnreachable;
    // A refused connection may make the socket writable as well.
    return socket_.ConnectSucceeded() ? StatusOutcome::kAnswered : StatusOutcome::kRefused;
  }

  platform::Socket socket_;
  bool libraryStarted_ = false;
  bool hasHeard_ = false;
};

std::string MakeSid() {
  std::array<char, kSidCapacity> text{};
  FormatTextA(text, "SID=%s", platform::NewUuidText());
  return text.data();
}

void SendRequest(DeviceConnection& connection, std::string_view sid) {
  for (int attempt = 0; attempt < kSendAttempts; ++attempt) {
    if (connection.Send(EncodeStatusRequest(sid))) return;
    platform::SleepMs(kSendPauseMs);
  }
}

}  // namespace

StatusOutcome ExchangeStatus(const char16_t* host, std::uint32_t configuredAddress,
                             const TakeStatusReply& take) {
  const std::string sid = MakeSid();
  const auto address = configuredAddress != 0 ? std::optional(configuredAddress)
                                              : platform::ResolveHost(host, kResolveLimitMs);
  if (!address) return StatusOutcome::kUnresolved;
  DeviceConnection connection;
  const StatusOutcome connected =
      connection.ConnectWithTimeout(platform::SocketAddress::Ipv4(*address, kStatusPort));
  if (connected != StatusOutcome::kAnswered) return connected;
  SendRequest(connection, sid);
  bool answered = false;
  FrameReceiver(connection).ReceiveFrames([&](FrameReceiver::Frame& frame) {
    if (!frame.record) return;
    answered = true;
    take(*address, frame);
  });
  if (answered) return StatusOutcome::kAnswered;
  return connection.hasHeard() ? StatusOutcome::kNotUnderstood : StatusOutcome::kSilent;
}

}  // namespace talvorn
