#include "client/tool/finding_view.h"

#include "client/tool/text_style.h"
#include "command_line/concat.h"
#include "command_line/terminal_text.h"

namespace talvorn {
namespace {

constexpr std::string_view kPage = "docs/troubleshooting.md";

struct Look {
  std::string_view word;
  TextStyle style;
};

Look LookOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk:
      return {"ok", TextStyle::kGood};
    case Verdict::kWarning:
      return {"warn", TextStyle::kAttention};
    case Verdict::kFailure:
      break;
  }
  return {"FAIL", TextStyle::kAlarm};
}

}  // namespace

std::string FindingLine(const Finding& finding, bool styles) {
  constexpr std::size_t kWordWidth = 6;
  const auto [word, style] = LookOf(finding.verdict);
  std::string line = Styled(word, styles ? style : TextStyle::kPlain);
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
  json.Key("verdict").String(LookOf(finding.verdict).word);
  json.Key("what").String(finding.what);
  json.Key("advice").String(finding.advice);
  json.EndObject();
}

}  // namespace talvorn
