// doctor: one line for each finding.
#include <string>

#include "client/doctor/examination.h"
#include "client/tool/commands.h"
#include "client/tool/json_writer.h"
#include "client/tool/session.h"
#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "platform/console.h"
#include "platform/process.h"

namespace talvorn {
namespace {

constexpr std::string_view kPage = "docs/troubleshooting.md";

std::string_view WordOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk:
      return "ok";
    case Verdict::kWarning:
      return "warn";
    case Verdict::kFailure:
      break;
  }
  return "FAIL";
}

// Colour is for people who look at a terminal.
std::string Coloured(Verdict verdict, std::string_view text) {
  if (!platform::OutputIsTerminal()) return std::string(text);
  const std::string_view colour = verdict == Verdict::kOk        ? "\x1b[32m"
                                  : verdict == Verdict::kWarning ? "\x1b[33m"
                                                                 : "\x1b[1;31m";
  return Concat({colour, text, "\x1b[0m"});
}

std::string LineOf(const Finding& finding) {
  constexpr std::size_t kWordWidth = 6;
  const std::string_view word = WordOf(finding.verdict);
  std::string line = Coloured(finding.verdict, word);
  line.append(kWordWidth - word.size(), ' ').append(EscapeForTerminal(finding.what));
  if (!finding.advice.empty()) {
    line.append(". ").append(EscapeForTerminal(finding.advice));
    line.append(Concat({" [", kPage, "#", finding.check, "]"}));
  }
  return line.append("\n");
}

void WriteFinding(JsonWriter& json, const Finding& finding) {
  json.BeginObject();
  json.Key("check").String(finding.check);
  json.Key("verdict").String(WordOf(finding.verdict));
  json.Key("what").String(finding.what);
  json.Key("advice").String(finding.advice);
  json.EndObject();
}

}  // namespace

int RunDoctorCommand(const ToolOptions& options) {
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
      outputStatus = Print(LineOf(finding));
  });
  if (!whole) return kDone;
  if (options.json) outputStatus = Print(Concat({json.EndArray().EndObject().text(), "\n"}));
  return outputStatus != kDone ? outputStatus : failed ? kFailed : kDone;
}

}  // namespace talvorn
