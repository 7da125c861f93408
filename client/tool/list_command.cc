// devices and items: once, or again and again.
#include <cstdlib>
#include <optional>
#include <string_view>

#include "client/client_presence.h"
#include "client/tool/commands.h"
#include "client/tool/live_screen.h"
#include "client/tool/row_history.h"
#include "client/tool/session.h"
#include "client/tool/table.h"
#include "client/tool/views.h"
#include "command_line/concat.h"
#include "platform/clock.h"
#include "platform/console.h"

namespace talvorn {
namespace {

// So long a row of the live table stays marked, or on the screen when it has gone.
constexpr std::uint64_t kMarkMs = 4'000;

struct Reading {
  ClientStatus status = ClientStatus::kOk;
  View view{};
  std::string json{};
};

Reading Read(LocatorClient& client, const ToolOptions& options) {
  if (options.command == ToolCommand::kDevices) {
    const auto devices = client.GetDevices();
    if (!devices) return {.status = devices.status};
    if (options.json) return {.json = DevicesJson(devices.value)};
    return {.view = ViewOfDevices(devices.value)};
  }
  const auto items = client.GetItems();
  if (!items) return {.status = items.status};
  if (options.json) return {.json = ItemsJson(items.value)};
  return {.view = ViewOfItems(items.value)};
}

std::string NowText() { return TimeText(platform::SystemClock().LocalTime()); }

int ListOnce(LocatorClient& client, const ToolOptions& options) {
  const Reading reading = Read(client, options);
  if (reading.status != ClientStatus::kOk) return Conclude(reading.status);
  if (options.json) return Print(Concat({reading.json, "\n"}));
  if (reading.view.rows.empty()) {
    // For people; to a program the empty output says it.
    (void)platform::WriteError(Concat({reading.view.title, "\n"}));
    return kDone;
  }
  return Print(TableText(reading.view));
}

// Whole tables or documents one after the other, for pipes and files.
int ListRepeatedly(LocatorClient& client, const ToolOptions& options) {
  bool complained = false;
  do {
    const Reading reading = Read(client, options);
    if (reading.status == ClientStatus::kInterrupted || platform::OutputAbandoned()) return kDone;
    if (reading.status == ClientStatus::kOk) {
      complained = false;
      const std::string text =
          options.json ? Concat({reading.json, "\n"})
                       : Concat({reading.view.title, ", ", NowText(), "\n",
                                 reading.view.rows.empty() ? "" : TableText(reading.view), "\n"});
      if (const int status = Print(text); status != kDone) return status;
    } else if (!complained) {
      complained = true;
      Complain(TroubleOf(reading.status));
    }
  } while (!InterruptedWithin(*options.watchMs));
  return kDone;
}

// The live table.
class LiveTable {
 public:
  explicit LiveTable(const ToolOptions& options) : options_(options) {
    const char* const noColour = std::getenv("NO_COLOR");
    colours_ = noColour == nullptr || *noColour == '\0';
  }

  [[nodiscard]] std::string Page(const Reading& reading) {
    const std::string every = IntervalText();
    if (reading.status == ClientStatus::kOk) {
      view_ = reading.view;
      marked_ = history_.Update(view_->rows, platform::MonotonicMs());
    }
    std::vector<ScreenLine> lines;
    const bool answered = reading.status == ClientStatus::kOk;
    lines.push_back({Concat({"TALVORN   ", answered ? view_->title : "no answer", "   ", NowText(),
                             "   ", every}),
                     LineStyle::kStrong});
    lines.emplace_back();
    if (!answered) {
      const Trouble trouble = TroubleOf(reading.status);
      lines.push_back({Concat({"Waiting: ", trouble.what, "."}), LineStyle::kAttention});
      lines.push_back({trouble.advice});
      lines.emplace_back();
    }
    if (view_) AddTable(lines, answered);
    const platform::TerminalSize size = platform::OutputTerminalSize().value_or(kUsualSize);
    return ComposePage(lines, size, colours_);
  }

 private:
  static constexpr platform::TerminalSize kUsualSize{80, 24};

  [[nodiscard]] std::string IntervalText() const {
    const std::uint32_t ms = *options_.watchMs;
    if (ms % 1'000 == 0) return Concat({"every ", std::to_string(ms / 1'000), " s, Ctrl-C ends"});
    return Concat({"every ", std::to_string(ms), " ms, Ctrl-C ends"});
  }

  // Old news in faint letters when the locator does not answer.
  void AddTable(std::vector<ScreenLine>& lines, bool current) const {
    if (marked_.empty()) return;
    std::vector<std::string> headings = {" "};
    headings.insert(headings.end(), view_->headings.begin(), view_->headings.end());
    Table table(headings);
    for (const MarkedRow& row : marked_) {
      std::vector<std::string> cells = {MarkText(row.mark)};
      cells.insert(cells.end(), row.cells.begin(), row.cells.end());
      table.AddRow(std::move(cells));
    }
    const std::vector<std::string> texts = table.Lines();
    lines.push_back({texts.front(), LineStyle::kStrong});
    for (std::size_t i = 0; i < marked_.size(); ++i)
      lines.push_back({texts[i + 1], current ? StyleOf(marked_[i].mark) : LineStyle::kFaint});
  }

  static std::string MarkText(RowMark mark) {
    switch (mark) {
      case RowMark::kNew:
        return "+";
      case RowMark::kChanged:
        return "*";
      case RowMark::kGone:
        return "-";
      case RowMark::kNone:
        break;
    }
    return {};
  }

  static LineStyle StyleOf(RowMark mark) {
    switch (mark) {
      case RowMark::kNew:
        return LineStyle::kGood;
      case RowMark::kChanged:
        return LineStyle::kAttention;
      case RowMark::kGone:
        return LineStyle::kFaint;
      case RowMark::kNone:
        break;
    }
    return LineStyle::kPlain;
  }

  const ToolOptions& options_;
  bool colours_ = true;
  std::optional<View> view_;  // as last read
  std::vector<MarkedRow> marked_;
  RowHistory history_{kMarkMs};
};

int ShowLive(LocatorClient& client, const ToolOptions& options) {
  LiveTable table(options);
  int status = Print(EnterScreen());
  while (status == kDone) {
    const Reading reading = Read(client, options);
    if (reading.status == ClientStatus::kInterrupted) break;
    status = Print(table.Page(reading));
    if (status != kDone || InterruptedWithin(*options.watchMs)) break;
  }
  const int restored = Print(LeaveScreen());
  return status == kDone ? restored : status;
}

bool CanDrawOver() {
  const char* const terminal = std::getenv("TERM");
  const bool dumb = terminal != nullptr && std::string_view(terminal) == "dumb";
  return platform::OutputIsTerminal() && !dumb;
}

}  // namespace

int RunListCommand(const ToolOptions& options) {
  LocatorClient client(ClientOptionsOf(options));
  if (!options.watchMs) return ListOnce(client, options);
  const ClientPresence presence;
  return CanDrawOver() && !options.json ? ShowLive(client, options)
                                        : ListRepeatedly(client, options);
}

}  // namespace talvorn
