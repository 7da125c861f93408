// doctor: one line for each finding.
#include <string>
#include <utility>

#include "client/doctor/examination.h"
#include "client/tool/commands.h"
#include "client/tool/finding_view.h"
#include "client/tool/session.h"
#include "client/tool/text_style.h"
#include "command_line/concat.h"
#include "platform/process.h"

namespace talvorn {
namespace {

// Findings for people, each as it is found.
class FindingLines {
 public:
  void Add(const Finding& finding) { Put(Concat({Erasure(), FindingLine(finding, styles_)})); }

  // On a terminal, until the next finding takes its place.
  void SayThatItListens(std::uint32_t milliseconds) {
    if (!draws_) return;
    Put(Concat({"      listens for ", std::to_string(milliseconds / 1'000), " s ..."}));
    listens_ = true;
  }

  int End(bool) {
    Put(Erasure());
    return status_;
  }

 private:
  // What takes away that it listens.
  std::string Erasure() {
    return std::exchange(listens_, false) ? Concat({"\r", kEraseRestOfLine}) : std::string();
  }

  void Put(const std::string& text) {
    if (status_ == kDone) status_ = Print(text);
  }

  const bool draws_ = OutputTakesSequences();
  const bool styles_ = OutputTakesStyles();
  bool listens_ = false;  // as the terminal shows
  int status_ = kDone;
};

// Findings for programs, all at the end; none of an examination that was broken off.
class FindingDocument {
 public:
  FindingDocument() { json_.BeginObject().Key("findings").BeginArray(); }

  void Add(const Finding& finding) { WriteFinding(json_, finding); }
  void SayThatItListens(std::uint32_t) {}
  int End(bool whole) {
    return whole ? Print(Concat({json_.EndArray().EndObject().text(), "\n"})) : kDone;
  }

 private:
  JsonWriter json_;
};

template <class Findings>
int ExamineInto(Findings findings, const ToolOptions& options) {
  bool failed = false;
  const ExaminationOptions wanted = {
      .timeoutMs = options.timeoutMs.value_or(kDefaultTimeoutMs),
      .interrupt = &platform::InterruptRequest(),
      .subject = options.subject,
      .onListening = [&](std::uint32_t milliseconds) { findings.SayThatItListens(milliseconds); }};
  const bool whole = Examine(wanted, [&](const Finding& finding) {
    failed = failed || finding.verdict == Verdict::kFailure;
    findings.Add(finding);
  });
  const int output = findings.End(whole);
  return output != kDone ? output : failed && whole ? kFailed : kDone;
}

}  // namespace

int RunDoctorCommand(const ToolOptions& options) {
  return options.json ? ExamineInto(FindingDocument(), options)
                      : ExamineInto(FindingLines(), options);
}

}  // namespace talvorn
