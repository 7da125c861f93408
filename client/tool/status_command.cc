// status: the locator and its interfaces at a glance.
#include "client/tool/commands.h"
#include "client/tool/session.h"
#include "client/tool/status.h"
#include "command_line/concat.h"

namespace talvorn {

int RunStatusCommand(const ToolOptions& options) {
  const Status status = TakeStatus(ClientOptionsOf(options), options.listenMs);
  if (Interrupted()) return kDone;
  JsonWriter json;
  if (options.json) WriteStatus(json, status);
  const int outputStatus = Print(options.json ? Concat({json.text(), "\n"}) : StatusText(status));
  if (outputStatus != kDone) return outputStatus;
  return status.answered == ClientStatus::kOk ? kDone : kFailed;
}

}  // namespace talvorn
