// The commands that ask or tell the locator one thing.
#include <algorithm>

#include "client/client_presence.h"
#include "client/locator_client.h"
#include "client/reinitialisation.h"
#include "client/tool/commands.h"
#include "client/tool/json_writer.h"
#include "client/tool/session.h"
#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/mailslot.h"
#include "platform/process.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kReinitTimeoutMs = 10'000;
constexpr std::uint32_t kReinitPollMs = 100;
constexpr std::uint32_t kRenewMs = 1'000;

int PrintValue(const ToolOptions& options, std::string_view key, std::string_view utf8) {
  if (!options.json) return Print(Concat({EscapeForTerminal(utf8), "\n"}));
  JsonWriter json;
  json.BeginObject().Key(key).String(utf8).EndObject();
  return Print(Concat({json.text(), "\n"}));
}

int LogPath(LocatorClient& client, const ToolOptions& options) {
  ClientStatus status = ClientStatus::kOk;
  if (options.resetDirectory) status = client.ResetLogPath();
  if (!options.directory.empty()) status = client.SetLogPath(options.directory);
  if (status != ClientStatus::kOk) return Conclude(status);
  const auto path = client.GetLogPath();
  return path ? PrintValue(options, "logPath", path.value) : Conclude(path.status);
}

int LogMode(const ToolOptions& options, ClientStatus status, std::string_view mode) {
  if (status != ClientStatus::kOk) return Conclude(status);
  return PrintValue(options, "logMode", mode);
}

}  // namespace

int RunLocatorCommand(const ToolOptions& options) {
  LocatorClient client(ClientOptionsOf(options));
  switch (options.command) {
    case ToolCommand::kLogStart:
      return LogMode(options, client.StartLog(), "on");
    case ToolCommand::kLogStop:
      return LogMode(options, client.StopLog(), "off");
    case ToolCommand::kLogPath:
      return LogPath(client, options);
    default:
      break;
  }
  const auto version = client.GetVersion();
  return version ? PrintValue(options, "version", version.value) : Conclude(version.status);
}

int RunHoldCommand(const ToolOptions& options) {
  // Before the mutex exists, so that the user's wish to end always closes it in order.
  const platform::Waitable* const interrupt[] = {&platform::InterruptRequest()};
  ClientPresence presence;
  if (!presence.held()) {
    Complain(Trouble{"the mutex that tells the locator of clients cannot be made",
                     MeetingPlaceQuestion("May this account write in ", "?")});
    return kFailed;
  }
  if (!platform::MailslotExists(platform::kLocatorMailslot))
    Complain(Concat({StatusText(ClientStatus::kNoLocator), "; one that is started now is held"}));
  if (const int status = Print("A locator started with /dynamic stays alive; Ctrl-C lets go.\n");
      status != kDone) {
    return status;
  }
  const std::uint64_t start = platform::MonotonicMs();
  for (std::uint64_t passed = 0; !options.holdMs || passed < *options.holdMs;
       passed = platform::MonotonicMs() - start) {
    const std::uint64_t left = options.holdMs ? *options.holdMs - passed : kRenewMs;
    const auto pause = static_cast<std::uint32_t>(std::min<std::uint64_t>(left, kRenewMs));
    if (platform::WaitForAny(interrupt, pause) != platform::WaitStatus::kTimeout) break;
    presence.Renew();
  }
  return kDone;
}

int RunReinitCommand(const ToolOptions& options) {
  const std::uint32_t timeout = options.timeoutMs.value_or(kReinitTimeoutMs);
  switch (RequestReinitialisation(options.address)) {
    case ReinitialisationStatus::kNoAddress:
      Complain(Concat({"'", EscapeForTerminal(options.address),
                       "' is not an IPv4 address such as 192.168.1.10"}));
      return kWrongUsage;
    case ReinitialisationStatus::kPending:
      break;
    default:
      Complain(
          "the request cannot be written into the locator's settings. May this account write "
          "them (TALVORN_REGISTRY)?");
      return kFailed;
  }
  const std::uint64_t deadline = platform::MonotonicMs() + timeout;
  while (timeout > 0) {
    if (QueryReinitialisation(options.address) == ReinitialisationStatus::kDone)
      return Print("The locator takes up the interface anew.\n");
    if (platform::MonotonicMs() >= deadline) {
      Complain(
          "the locator has not taken up the request in time. Is talvorn-locator running, and is "
          "TALVORN_REGISTRY the same for both?");
      return kFailed;
    }
    if (InterruptedWithin(kReinitPollMs)) return kDone;
  }
  return Print("The request is left for the locator.\n");
}

}  // namespace talvorn
