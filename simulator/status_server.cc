#include "simulator/status_server.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "command_line/concat.h"
#include "platform/clock.h"

namespace talvorn {
namespace {

using platform::WaitStatus;

constexpr int kBacklog = 512;
constexpr std::size_t kMaxConnections = 400;
constexpr std::uint64_t kConnectionLimitMs = 30'000;
constexpr std::uint32_t kRoomWaitMs = 200;
// After an accept for which there was no room, or nothing after all.
constexpr std::uint32_t kFullPauseMs = 20;
// How long a connection waits whose arrival the system did not tell of.
constexpr std::uint32_t kLookMs = 100;

}  // namespace

struct StatusServer::Connection {
  explicit Connection(platform::Socket accepted)
      : socket(std::move(accepted)), deadlineMs(platform::MonotonicMs() + kConnectionLimitMs) {
    running.Set();
  }
  ~Connection() {
    running.Clear();
    thread.Join();
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // All of these return false once the peer has closed, the time of the connection is
  // over, or it is to end.
  bool WaitForBytes(std::uint64_t untilMs);
  bool Receive(std::span<std::byte> bytes, std::size_t& size);
  bool Fill(std::span<std::byte> bytes, std::size_t& size);
  bool Send(std::span<const std::byte> bytes);
  bool Pause(std::uint64_t milliseconds);
  void Answer(const StatusReply& reply);

  platform::Socket socket;
  const std::uint64_t deadlineMs;
  RunFlag running;
  std::atomic<bool> ended{false};
  platform::Thread thread;
};

// True as well when the time has come without any.
bool StatusServer::Connection::WaitForBytes(std::uint64_t untilMs) {
  const std::uint64_t now = platform::MonotonicMs();
  if (!running || now >= deadlineMs) return false;
  const platform::Waitable* const list[] = {&socket, &running.cleared()};
  const std::uint64_t end = std::min(untilMs, deadlineMs);
  const auto limit = static_cast<std::uint32_t>(end > now ? end - now : 0);
  return platform::WaitForAny(list, limit) != WaitStatus::kFailed && running;
}

// What is there by now; perhaps nothing.
bool StatusServer::Connection::Receive(std::span<std::byte> bytes, std::size_t& size) {
  const bool readable = socket.WaitFor(platform::Readiness::kReadable, 0) == WaitStatus::kSignalled;
  const auto received = socket.Receive(bytes);
  size = received.value_or(0);
  return size > 0 || (!received && !readable);
}

bool StatusServer::Connection::Fill(std::span<std::byte> bytes, std::size_t& size) {
  size = 0;
  while (size < bytes.size()) {
    std::size_t received = 0;
    if (!WaitForBytes(deadlineMs) || !Receive(bytes.subspan(size), received)) return false;
    size += received;
  }
  return true;
}

bool StatusServer::Connection::Send(std::span<const std::byte> bytes) {
  bool room = false;
  while (!bytes.empty()) {
    if (!running || platform::MonotonicMs() >= deadlineMs) return false;
    if (const auto sent = socket.Send(bytes)) {
      bytes = bytes.subspan(*sent);
      room = false;
    } else {
      if (room) return false;  // that was no lack of room
      room = socket.WaitFor(platform::Readiness::kWritable, kRoomWaitMs) == WaitStatus::kSignalled;
    }
  }
  return true;
}

// What the peer sends meanwhile counts for nothing.
bool StatusServer::Connection::Pause(std::uint64_t milliseconds) {
  const std::uint64_t until = platform::MonotonicMs() + milliseconds;
  do {
    std::array<std::byte, 256> unused;
    std::size_t size = 0;
    if (!WaitForBytes(until) || !Receive(unused, size)) return false;
  } while (platform::MonotonicMs() < until);
  return true;
}

void StatusServer::Connection::Answer(const StatusReply& reply) {
  std::span<const std::byte> rest = reply.bytes;
  const std::size_t piece = reply.pieceSize == 0 ? rest.size() : reply.pieceSize;
  while (!rest.empty()) {
    const auto next = rest.first(std::min(piece, rest.size()));
    rest = rest.subspan(next.size());
    if (!Send(next) || !Pause(reply.pauseMs)) return;
  }
  while (!reply.repeated.empty()) {
    if (!Send(reply.repeated) || !Pause(reply.pauseMs)) return;
  }
  if (!reply.closes) (void)Pause(kConnectionLimitMs);
}

StatusServer::StatusServer(const DeviceModel& model, std::vector<std::uint32_t> addresses,
                           StatusFault fault, Log log)
    : model_(model), addresses_(std::move(addresses)), fault_(fault), log_(std::move(log)) {}

StatusServer::~StatusServer() { Stop(); }

bool StatusServer::Open(std::uint16_t port) {
  listener_ =
      platform::Socket::Create(platform::AddressFamily::kIpv4, platform::SocketType::kStream);
  return listener_.valid() && listener_.ClaimAddress() &&
         listener_.Bind(platform::SocketAddress::Ipv4(0, port)) == platform::BindOutcome::kBound &&
         listener_.Listen(kBacklog);
}

bool StatusServer::Start(std::uint64_t startMs) {
  startMs_ = startMs;
  running_.Set();
  thread_ = platform::Thread::Start("status-server", [this] {
    Listen();
    return 0U;
  });
  return thread_.valid();
}

void StatusServer::Stop() {
  running_.Clear();
  thread_.Join();
}

void StatusServer::Listen() {
  const platform::Waitable* const list[] = {&listener_, &running_.cleared()};
  const std::span ended(&list[1], 1);
  while (running_) {
    const WaitStatus status = platform::WaitForAny(list, kLookMs);
    if (status == WaitStatus::kFailed) break;
    if (running_ && !Accept() && status == WaitStatus::kSignalled) {
      (void)platform::WaitForAny(ended, kFullPauseMs);
    }
  }
  for (Connection& connection : connections_) connection.running.Clear();
  connections_.clear();
}

bool StatusServer::Accept() {
  connections_.remove_if([](const Connection& connection) { return connection.ended.load(); });
  platform::Socket socket;
  if (connections_.size() < kMaxConnections) socket = listener_.Accept();
  if (!socket.valid()) return false;
  Connection& connection = connections_.emplace_back(std::move(socket));
  connection.thread = platform::Thread::Start("status-answer", [this, &connection] {
    Serve(connection);
    connection.socket.ShutdownBoth();
    connection.socket.Close();
    connection.ended = true;
    return 0U;
  });
  if (!connection.thread.valid()) connections_.pop_back();
  return true;
}

void StatusServer::Serve(Connection& connection) {
  const std::uint32_t address = connection.socket.LocalAddress().ipv4();
  const std::string where = Concat({" at ", platform::Ipv4Text(address)});
  std::array<std::byte, kStatusRequestSize> bytes;
  std::size_t size = 0;
  const bool complete = connection.Fill(bytes, size);
  if (!complete && !connection.running) return;
  const StatusRequest request = ParseStatusRequest(std::span(bytes).first(size));
  if (!request.mistake.empty()) {
    log_(Concat({"something else than a status query", where, ": ", request.mistake}));
    return;
  }
  ++queries_;
  const std::uint64_t nowMs = platform::MonotonicMs() - startMs_;
  const auto device = DeviceAt(address);
  if (!device || !model_.Present(*device, nowMs)) {
    log_(Concat({"status query", where, ", where no device is"}));
    return;
  }
  log_(Concat({"status query", where, ", SID=", request.sid}));
  connection.Answer(MakeStatusReply(model_, *device, nowMs, fault_));
}

std::optional<std::uint32_t> StatusServer::DeviceAt(std::uint32_t address) const {
  const auto found = std::ranges::find(addresses_, address);
  const auto index = static_cast<std::uint32_t>(found - addresses_.begin());
  if (found == addresses_.end() || index >= model_.count()) return std::nullopt;
  return index;
}

}  // namespace talvorn
