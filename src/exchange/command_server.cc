#include "exchange/command_server.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "devices/device_record.h"
#include "exchange/messages/messages.h"
#include "exchange/object_security.h"
#include "platform/ascii_case.h"
#include "platform/mailslot.h"
#include "platform/process.h"
#include "support/byte_io.h"
#include "support/completed.h"
#include "support/debug_trace.h"
#include "support/settings.h"
#include "support/thread.h"
#include "version.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kTickMs = 10;
// How often a mailslot that could not be made is tried again.
constexpr std::uint32_t kRetryMs = 2'000;
constexpr std::size_t kTextCapacity = 1'024;
// Far above what any request needs; a larger message is lost unread.
constexpr std::size_t kLargestMessage = 64 * 1'024;
constexpr std::string_view kInvalidCommand = "INVALID COMMAND";
constexpr std::string_view kFallbackLogPath = "c:\\";
constexpr std::string_view kTraceTag = "TALVORN_APPL";
constexpr std::string_view kLogModeEventA = "Global\\DRAVIK_LOGMODE";

// A reply; what follows the header stands in `own` or in a list's snapshot.
struct Reply {
  std::array<std::byte, kReplyHeaderSize> header;
  std::span<const std::byte> payload;
  std::unique_ptr<const std::vector<std::byte>> own{};
};

// None when it would be longer than its length field can say.
std::optional<Reply> MakeReply(ReplyType type, std::size_t count,
                               std::span<const std::byte> payload) {
  const std::size_t size = kReplyHeaderSize + payload.size();
  if (size > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  Reply reply{{}, payload};
  EncodeReplyHeader({.totalLength = static_cast<std::uint32_t>(size),
                     .type = type,
                     .count = static_cast<std::uint32_t>(count)},
                    reply.header);
  return reply;
}

// The text and its terminator.
std::optional<Reply> MakeTextReply(ReplyType type, std::string_view text) {
  const auto bytes = AsBytes(text);
  auto own = std::make_unique<std::vector<std::byte>>(bytes.begin(), bytes.end());
  own->push_back(std::byte{0});
  auto reply = MakeReply(type, own->size(), *own);
  if (reply) reply->own = std::move(own);
  return reply;
}

std::string TemporaryLogPath() {
  return platform::TemporaryDirectory(kLogPathCapacity).value_or(std::string(kFallbackLogPath));
}

class CommandServer {
 public:
  explicit CommandServer(ExchangeContext& context) : context_(context) {}

  void Run() {
    CompleteWhile(context_.running, [this] {
      if (!Start()) context_.running.Clear();
    });
    while (context_.running && !mailslot_.valid()) {
      Pause(kRetryMs);
      if (context_.running) (void)Completed([this] { (void)CreateMailslot(); });
    }
    if (mailslot_.valid()) platform::ReportReady();
    while (context_.running) Pass();
  }

 private:
  bool Start() {
    RetrieveValues(settings_);
    logPath_ = ReadLogPath().data();
    if (logPath_.empty()) logPath_ = TemporaryLogPath();

    const bool secured = CreateMailslot().has_value();
    if (secured) (void)Completed([this] { OpenLogModeEvent(); });
    return secured;
  }

  // Whether the mailslot is there, which another program may have for now. None when the
  // security that it is to have cannot be had.
  std::optional<bool> CreateMailslot() {
    platform::SecurityAttributes security;
    const bool secured = CreateSecurityAttributes(context_, security);
    if (secured) mailslot_ = platform::Mailslot::Create(platform::kLocatorMailslot, &security);
    FreeSecurityAttributes(context_);
    if (!secured) return std::nullopt;
    return mailslot_.valid();
  }

  void OpenLogModeEvent() {
    logModeEvent_ = platform::NamedEvent::Open(kLogModeEvent);
    if (logModeEvent_.valid()) {
      TraceA("%s ThreadExchange() OpenEvent() success - \"%s\"\n", kTraceTag, kLogModeEventA);
      return;
    }
    TraceA("%s ThreadExchange() OpenEvent() failed try CreateEvent() - \"%s\"\n", kTraceTag,
           kLogModeEventA);
    logModeEvent_ = platform::NamedEvent::Create(kLogModeEvent);
    if (logModeEvent_.valid()) {
      TraceA("%s ThreadExchange() CreateEvent() success - \"%s\"\n", kTraceTag, kLogModeEventA);
    } else {
      TraceA("%s ThreadExchange() CreateEvent() failed - \"%s\"\n", kTraceTag, kLogModeEventA);
    }
  }

  void Pass() {
    using Taken = platform::Mailslot::Taken;
    Taken taken = Taken::kFailed;
    const bool served = Completed([&] {
      platform::Message message;
      taken = mailslot_.Take(message, kLargestMessage);
      if (taken == Taken::kMessage) Serve(message.bytes());
    });
    context_.responseList->DropSnapshot();
    context_.itemList->DropSnapshot();
    if (taken == Taken::kNone) {
      (void)mailslot_.WaitForMessage(context_.running.cleared(), std::nullopt);
    } else if (taken == Taken::kFailed || !served) {
      Pause(kTickMs);  // the message may still be there, the memory not
    }
  }

  void Pause(std::uint32_t milliseconds) {
    const platform::Waitable* const cleared[] = {&context_.running.cleared()};
    (void)platform::WaitForAny(cleared, milliseconds);
  }

  void Serve(std::span<const std::byte> message) {
    const std::string command = CommandIn(message);
    if (command.empty()) return;
    const std::optional<Reply> reply = Dispatch(command);
    const std::u16string_view name =
        replyMailslot_.empty() ? kDefaultReplyMailslot : std::u16string_view(replyMailslot_);
    if (!reply || !platform::IsMailslotName(name)) return;
    // A client that is gone or does not read loses its reply.
    const std::span<const std::byte> parts[] = {reply->header, reply->payload};
    (void)platform::WriteMailslot(name, parts, 0);
  }

  // Empty when there is nothing to serve.
  std::string CommandIn(std::span<const std::byte> message) {
    if (message.size() < kReplyNameOffset) return std::string(kInvalidCommand);
    const std::optional<Request> request = DecodeRequest(message);
    if (!request) return {};
    replyMailslot_ = request->replyMailslot;
    return request->command;
  }

  std::optional<Reply> Dispatch(std::string_view command) {
    if (platform::EqualsIgnoringCase(command, kGetVersion))
      return MakeTextReply(ReplyType::kVersion, kVersionText);
    if (platform::EqualsIgnoringCase(command, kGetInfo)) return DeviceReply();
    if (platform::EqualsIgnoringCase(command, kGetItems)) return ItemReply();
    if (platform::StartsIgnoringCase(command, kSetLogPath)) {
      SetLogPath(command);
    } else if (platform::StartsIgnoringCase(command, kGetLogPath)) {
      return LogPathReply();
    } else if (platform::StartsIgnoringCase(command, kStartLog)) {
      StartLog();
    } else if (platform::StartsIgnoringCase(command, kStopLog)) {
      StopLog();
    } else {
      return UnknownCommandReply(command);
    }
    return std::nullopt;
  }

  std::optional<Reply> DeviceReply() {
    std::uint32_t count = 0;
    const std::byte* records = nullptr;
    if (context_.responseList->count() != 0) {
      RetrieveValues(settings_);  // so that another preferred version counts at once
      const std::lock_guard guard(context_.responseList->lock);
      count = context_.responseList->GetResponses(records, settings_.preferedIpVersion);
    }
    // Only this thread takes snapshots and drops them, so the block stays as it is.
    static constexpr std::array<std::byte, kDeviceRecordSize> kSpareRecord{};
    return MakeReply(
        ReplyType::kDevices, count,
        count == 0 ? std::span(kSpareRecord) : std::span(records, count * kDeviceRecordSize));
  }

  std::optional<Reply> ItemReply() {
    std::span<const std::byte> items;
    if (context_.itemList->count() != 0) {
      const std::lock_guard guard(context_.itemList->lock);
      items = context_.itemList->GetItems();
    }
    static constexpr std::array<std::byte, 1> kNoItems{};
    return MakeReply(ReplyType::kItems, items.size(), items.empty() ? std::span(kNoItems) : items);
  }

  void SetLogPath(std::string_view command) {
    TraceAlwaysA("%s ----------------------------------------\n", kTraceTag);
    TraceAlwaysA("%s CMD_SETLOGPATH\n", kTraceTag);
    if (const std::size_t separator = command.find(';'); separator != std::string_view::npos) {
      std::string path(command.substr(separator + 1));
      const char end = platform::PathSeparatorFor(path);
      if (!path.ends_with(end)) path.push_back(end);
      logPath_ = std::move(path);
    } else {
      logPath_ = TemporaryLogPath();
    }
    TraceAlwaysA("%s CMD_SETLOGPATH LogPath: %s\n", kTraceTag, logPath_);
  }

  std::optional<Reply> LogPathReply() {
    TraceAlwaysA("%s ----------------------------------------\n", kTraceTag);
    TraceAlwaysA("%s CMD_GETLOGPATH\n", kTraceTag);
    auto reply = MakeTextReply(ReplyType::kLogPath, logPath_);
    TraceAlwaysA("%s CMD_GETLOGPATH LogPath: %s\n", kTraceTag, logPath_);
    return reply;
  }

  void StartLog() {
    if (logModeEvent_.valid()) logModeEvent_.Set();
    if (!context_.logModeMutex.valid())
      context_.logModeMutex = platform::NamedMutex::Create(kLogModeMutex);
  }

  void StopLog() {
    if (logModeEvent_.valid()) logModeEvent_.Reset();
    context_.logModeMutex.Close();
  }

  static std::optional<Reply> UnknownCommandReply(std::string_view command) {
    std::array<char, kTextCapacity> text{};
    FormatTextA(text, "UNKNOWN COMMAND: %s", command);
    return MakeTextReply(ReplyType::kUnknownCommand, text.data());
  }

  ExchangeContext& context_;
  RegistryValues settings_;
  std::string logPath_;
  std::u16string replyMailslot_;  // of the last request; empty: the default
  platform::NamedEvent logModeEvent_;
  platform::Mailslot mailslot_;
};

}  // namespace

bool StartExchange(ExchangeContext& context) {
  context.running.Set();
  context.thread = StartThread("exchange", [&context] { return ThreadExchange(context); });
  return context.thread.valid();
}

void StopExchange(ExchangeContext& context) {
  Trace(u"Exchange Stop");
  context.running.Clear();
  context.thread.Join();
}

std::uint32_t ThreadExchange(ExchangeContext& context) {
  CommandServer(context).Run();
  return 0;
}

}  // namespace talvorn
