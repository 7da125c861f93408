#include "client/locator_client.h"

#include <algorithm>
#include <array>
#include <limits>
#include <random>
#include <utility>

#include "exchange/messages/messages.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/text_encoding.h"
#include "support/text_format.h"

namespace talvorn {
namespace {

using platform::MonotonicMs;
using Taken = platform::Mailslot::Taken;

// No reply is refused for its size: their number of devices and items is the locator's.
constexpr std::size_t kLargestReply = std::numeric_limits<std::size_t>::max();

// A busy locator is given its time in slices, between which an interrupt counts.
constexpr std::uint32_t kSendSliceMs = 100;
constexpr int kNameAttempts = 8;
constexpr int kMaxStrays = 64;

std::string NarrowToUtf8(std::string_view text) {
  return platform::WideToUtf8(platform::NarrowToWide(text));
}

// Of this process and nobody else: "\\.\mailslot\talvorn_1234_9f3c2a10".
std::u16string NewMailslotName() {
  static thread_local std::random_device random;
  std::array<char16_t, kReplyNameMaxLength + 1> name{};
  FormatTextW(name, u"%stalvorn_%u_%08x", platform::kMailslotPrefix, platform::CurrentProcessId(),
              std::uint32_t{random()});
  return name.data();
}

std::uint32_t MsUntil(std::uint64_t deadlineMs) {
  const std::uint64_t now = MonotonicMs();
  return static_cast<std::uint32_t>(deadlineMs > now ? deadlineMs - now : 0);
}

}  // namespace

const char* StatusText(ClientStatus status) {
  switch (status) {
    case ClientStatus::kOk:
      return "done";
    case ClientStatus::kNoLocator:
      return "the locator does not answer";
    case ClientStatus::kNoAnswer:
      return "the locator has not answered in time";
    case ClientStatus::kBadReply:
      return "what came back is not a locator's reply";
    case ClientStatus::kNoMailslot:
      return "the locator cannot send its reply to this program";
    case ClientStatus::kBadRequest:
      return "the locator cannot take this text";
    case ClientStatus::kInterrupted:
      return "the wait was interrupted";
  }
  return "";
}

LocatorClient::LocatorClient(const ClientOptions& options)
    : options_(options), never_(platform::Event::Create(platform::Event::Mode::kManualReset)) {}

Answer<std::string> LocatorClient::GetVersion() {
  return AskText(kGetVersion, ReplyType::kVersion);
}

Answer<std::string> LocatorClient::GetLogPath() {
  return AskText(kGetLogPath, ReplyType::kLogPath);
}

Answer<std::vector<DeviceRecord>> LocatorClient::GetDevices() {
  Answer<std::vector<DeviceRecord>> answer;
  answer.status = Ask(kGetInfo, ReplyType::kDevices, [&](std::span<const std::byte> reply) {
    auto devices = DecodeDevicesReply(reply);
    if (devices) answer.value = std::move(*devices);
    return devices.has_value();
  });
  return answer;
}

Answer<std::vector<DeviceItem>> LocatorClient::GetItems() {
  Answer<std::vector<DeviceItem>> answer;
  answer.status = Ask(kGetItems, ReplyType::kItems, [&](std::span<const std::byte> reply) {
    auto items = DecodeItemsReply(reply);
    if (items) answer.value = std::move(*items);
    return items.has_value();
  });
  return answer;
}

ClientStatus LocatorClient::SetLogPath(std::string_view path) {
  const std::string narrow = platform::WideToNarrow(platform::Utf8ToWide(path));
  if (path.empty() || NarrowToUtf8(narrow) != path) return ClientStatus::kBadRequest;
  return Tell(std::string(kSetLogPath).append(";").append(narrow));
}

ClientStatus LocatorClient::ResetLogPath() { return Tell(kSetLogPath); }
ClientStatus LocatorClient::StartLog() { return Tell(kStartLog); }
ClientStatus LocatorClient::StopLog() { return Tell(kStopLog); }

Answer<std::string> LocatorClient::AskText(std::string_view command, ReplyType type) {
  Answer<std::string> answer;
  answer.status = Ask(command, type, [&](std::span<const std::byte> reply) {
    const auto text = DecodeTextReply(reply, type);
    if (text) answer.value = NarrowToUtf8(*text);
    return text.has_value();
  });
  return answer;
}

ClientStatus LocatorClient::Ask(std::string_view command, ReplyType type, const Accept& accept) {
  const std::uint64_t deadline = MonotonicMs() + options_.timeoutMs;
  ClientStatus status = Send(command, deadline);
  if (status != ClientStatus::kOk) return status;
  status = AwaitReply(type, accept, deadline);
  // The reply that is still on its way must not meet the next request.
  if (status != ClientStatus::kOk) mailslot_ = {};
  return status;
}

// Commands without reply: requests are served in order, so that the answer to a
// second one says that the first is done.
ClientStatus LocatorClient::Tell(std::string_view command) {
  const ClientStatus sent = Send(command, MonotonicMs() + options_.timeoutMs);
  return sent == ClientStatus::kOk ? GetVersion().status : sent;
}

bool LocatorClient::PrepareMailslot(std::uint64_t deadlineMs) {
  // On Linux it is lost with the folder that it stood in.
  if (mailslot_.valid() && !platform::MailslotExists(mailslotName_)) mailslot_ = {};
  for (int attempt = 0; !mailslot_.valid() && attempt < kNameAttempts; ++attempt) {
    mailslotName_ = options_.replyMailslot.empty() ? NewMailslotName() : options_.replyMailslot;
    mailslot_ = platform::Mailslot::Create(mailslotName_, nullptr);
  }
  // Anybody may write to it.
  if (!mailslot_.AcceptOnlyFromOwnerOf(platform::kLocatorMailslot)) return false;
  // Strays, such as the locator's answer to a request so short that it names no
  // mailslot: that goes to the one who asked last.
  for (int stray = 0; stray < kMaxStrays && MsUntil(deadlineMs) > 0 && !Interrupted(); ++stray) {
    platform::Message message;
    if (mailslot_.Take(message, kLargestReply) == Taken::kNone) break;
  }
  return true;
}

ClientStatus LocatorClient::Send(std::string_view command, std::uint64_t deadlineMs) {
  if (!platform::MailslotExists(platform::kLocatorMailslot)) return ClientStatus::kNoLocator;
  if (!PrepareMailslot(deadlineMs)) return ClientStatus::kNoMailslot;
  const auto request =
      EncodeRequest({.replyMailslot = mailslotName_, .command = std::string(command)});
  if (!request || command.find('\0') != std::string_view::npos) return ClientStatus::kBadRequest;
  for (;;) {
    if (Interrupted()) return ClientStatus::kInterrupted;
    const std::uint32_t slice = std::min(MsUntil(deadlineMs), kSendSliceMs);
    switch (platform::WriteMailslot(platform::kLocatorMailslot, *request, slice)) {
      case platform::MailslotWrite::kWritten:
        return ClientStatus::kOk;
      case platform::MailslotWrite::kFull:
        if (MsUntil(deadlineMs) == 0) return ClientStatus::kNoAnswer;
        break;
      case platform::MailslotWrite::kAbsent:
      case platform::MailslotWrite::kFailed:
        return ClientStatus::kNoLocator;
    }
  }
}

ClientStatus LocatorClient::AwaitReply(ReplyType type, const Accept& accept,
                                       std::uint64_t deadlineMs) {
  const platform::Waitable& wake = options_.interrupt ? *options_.interrupt : never_;
  bool badReply = false;
  for (;;) {
    const auto waited = mailslot_.WaitForMessage(wake, MsUntil(deadlineMs));
    if (waited == platform::WaitStatus::kFailed) return ClientStatus::kNoMailslot;
    if (waited == platform::WaitStatus::kSignalled) {
      platform::Message reply;
      (void)mailslot_.Take(reply, kLargestReply);  // none is a bad one
      const auto header = DecodeReplyHeader(reply.bytes());
      if (header && header->type == type && accept(reply.bytes())) return ClientStatus::kOk;
      // Anybody may write to the mailslot; a reply of another type is a stray.
      badReply = badReply || !header || header->type == type;
    }
    if (Interrupted()) return ClientStatus::kInterrupted;
    if (MsUntil(deadlineMs) == 0)
      return badReply ? ClientStatus::kBadReply : ClientStatus::kNoAnswer;
  }
}

bool LocatorClient::Interrupted() const {
  const platform::Waitable* const interrupt[] = {options_.interrupt};
  return options_.interrupt != nullptr &&
         platform::WaitForAny(interrupt, 0) == platform::WaitStatus::kSignalled;
}

}  // namespace talvorn
