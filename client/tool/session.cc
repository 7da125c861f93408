#include "client/tool/session.h"

#include "client/tool/commands.h"
#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "platform/console.h"
#include "platform/file_replacement.h"
#include "platform/process.h"

namespace talvorn {
namespace {

std::string AdviceOn(ClientStatus status) {
  switch (status) {
    case ClientStatus::kNoLocator:
      return Concat({"Is talvorn-locator running",
                     MeetingPlaceQuestion(", and is ", " the same for both"), "?"});
    case ClientStatus::kNoAnswer:
      return "Is it stopped or overloaded? --timeout gives it longer.";
    case ClientStatus::kBadReply:
      return "Do talvorn and talvorn-locator belong together?";
    case ClientStatus::kNoMailslot:
      return MeetingPlaceQuestion("May this account write in ", "?");
    case ClientStatus::kBadRequest:
      return "It is too long, or has characters outside its code page.";
    case ClientStatus::kOk:
    case ClientStatus::kInterrupted:
      break;
  }
  return {};
}

}  // namespace

ClientOptions ClientOptionsOf(const ToolOptions& options) {
  return {.timeoutMs = options.timeoutMs.value_or(kDefaultTimeoutMs),
          .interrupt = &platform::InterruptRequest()};
}

std::string MeetingPlaceQuestion(std::string_view before, std::string_view after) {
  const std::string_view variable = platform::MeetingPlaceVariable();
  return variable.empty() ? std::string() : Concat({before, variable, after});
}

Trouble TroubleOf(ClientStatus status) {
  if (status == ClientStatus::kNoLocator) {
    if (std::string obstacle = platform::MeetingPlaceObstacle(); !obstacle.empty())
      return {std::move(obstacle), "'talvorn doctor' says what to do."};
  }
  return {StatusText(status), AdviceOn(status)};
}

void Complain(std::string_view sentence) {
  // With standard error gone there is nobody left to tell.
  (void)platform::WriteError(Concat({"talvorn: ", sentence, "\n"}));
}

void Complain(const Trouble& trouble) {
  Complain(Concat({trouble.what, trouble.advice.empty() ? "." : ". ", trouble.advice}));
}

int Print(const std::string& text) {
  if (platform::WriteOutput(text)) return kDone;
  // Whoever closes a pipe early has seen enough, and wants no complaint.
  if (!platform::OutputAbandoned()) Complain("standard output cannot be written");
  return kFailed;
}

int Conclude(ClientStatus status) {
  if (status == ClientStatus::kOk || status == ClientStatus::kInterrupted) return kDone;
  Complain(TroubleOf(status));
  return status == ClientStatus::kBadRequest ? kWrongUsage : kFailed;
}

int WriteFile(const std::string& file, const std::string& text) {
  const std::error_code error = platform::ReplaceFileContent(file, text);
  if (!error) return kDone;
  std::string reason = error.message();
  reason.erase(reason.find_last_not_of(" .\r\n") + 1);
  Complain(
      Concat({"'", EscapeForTerminal(file), "' cannot be written: ", EscapeForTerminal(reason)}));
  return kFailed;
}

bool InterruptedWithin(std::uint32_t milliseconds) {
  const platform::Waitable* const interrupt[] = {&platform::InterruptRequest()};
  return platform::WaitForAny(interrupt, milliseconds) == platform::WaitStatus::kSignalled;
}

bool Interrupted() { return InterruptedWithin(0); }

}  // namespace talvorn
