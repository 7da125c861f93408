#include "client/tool/finding_view.h"

#include "command_line/concat.h"
#include "command_line/terminal_text.h"

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

std::string Coloured(Verdict verdict, std::string_view text) {
  const std::string_view colour = verdict == Verdict::kOk        ? "\x1b[32m"
                                  : verdict == Verdict::kWarning ? "\x1b[33m"
                                                                 : "\x1b[1;31m";
  return Concat({colour, text, "\x1b[0m"});
}

}  // namespace

std::string FindingLine(const Finding& finding, bool colours) {
  constexpr std::size_t kWordWidth = 6;
  const std::string_view word = WordOf(finding.verdict);
  std::string line = colours ? Coloured(finding.verdict, word) : std::string(word);
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

}  // namespace talvorn
