// doctor: one line for each finding.
#include <string>

#include "client/doctor/examination.h"
#include "client/tool/commands.h"
#include "client/tool/finding_view.h"
#include "client/tool/session.h"
#include "client/tool/text_style.h"
#include "command_line/concat.h"
#include "platform/process.h"

namespace talvorn {
int RunDoctorCommand(const ToolOptions& options) {
  const bool styles = OutputTakesStyles();
  JsonWriter json;
  json.BeginObject().Key("findings").BeginArray();
  int outputStatus = kDone;
  bool failed = false;
  const ExaminationOptions wanted = {.timeoutMs = options.timeoutMs.value_or(kDefaultTimeoutMs),
                                     .interrupt = &platform::InterruptRequest(),
                                     .subject = options.subject};
  const bool whole = Examine(wanted, [&](const Finding& finding) {
    failed = failed || finding.verdict == Verdict::kFailure;
    if (options.json)
      WriteFinding(json, finding);
    else if (outputStatus == kDone)
      outputStatus = Print(FindingLine(finding, styles));
  });
  if (!whole) return kDone;
  if (options.json) outputStatus = Print(Concat({json.EndArray().EndObject().text(), "\n"}));
  return outputStatus != kDone ? outputStatus : failed ? kFailed : kDone;
}

}  // namespace talvorn
