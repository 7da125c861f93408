// devices and items: once, or again and again.
#include <algorithm>
#include <optional>

#include "client/client_presence.h"
#include "client/tool/arrangement.h"
#include "client/tool/commands.h"
#include "client/tool/live_table.h"
#include "client/tool/session.h"
#include "client/tool/table.h"
#include "client/tool/text_style.h"
#include "client/tool/views.h"
#include "command_line/concat.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/keyboard.h"
#include "platform/process.h"

namespace talvorn {
namespace {

struct Reading {
  ClientStatus status = ClientStatus::kOk;
  View view{};
  std::string json{};
};

void Arrange(View& view, const ToolOptions& options) {
  KeepMatching(view.rows, options.pattern);
  SortRows(view.rows, view.headings, options.sortBy);
}

// The records in the order in which they came, unless the user wants another one.
template <class Record>
std::vector<Record> Arranged(const std::vector<Record>& records, View view,
                             const ToolOptions& options) {
  std::ranges::sort(view.rows, {}, &ViewRow::source);
  Arrange(view, options);
  std::vector<Record> arranged;
  for (const ViewRow& row : view.rows) arranged.push_back(records[row.source]);
  return arranged;
}

template <class Record>
Reading ReadingOf(const Answer<std::vector<Record>>& answer,
                  View (*viewOf)(std::span<const Record>),
                  std::string (*jsonOf)(std::span<const Record>), const ToolOptions& options) {
  if (!answer) return {.status = answer.status};
  View view = viewOf(answer.value);
  if (options.json) return {.json = jsonOf(Arranged(answer.value, std::move(view), options))};
  return {.view = std::move(view)};
}

Reading Read(LocatorClient& client, const ToolOptions& options) {
  return options.command == ToolCommand::kDevices
             ? ReadingOf(client.GetDevices(), ViewOfDevices, DevicesJson, options)
             : ReadingOf(client.GetItems(), ViewOfItems, ItemsJson, options);
}

// Whole for a file or a pipe, and never wider than a terminal.
std::string ListText(View view, const ToolOptions& options) {
  Arrange(view, options);
  Table table(SelectCells(view.headings, view.headings, options.columns));
  for (const ViewRow& row : view.rows)
    table.AddRow(SelectCells(view.headings, row.cells, options.columns));
  if (const auto size = platform::OutputTerminalSize(); size && platform::OutputIsTerminal())
    table.FitTo(size->columns, view.expendable);
  return table.size() == 0 ? std::string() : table.Text();
}

std::string NowText() { return TimeText(platform::SystemClock().LocalTime()); }

int ListOnce(LocatorClient& client, const ToolOptions& options) {
  const Reading reading = Read(client, options);
  if (reading.status != ClientStatus::kOk) return Conclude(reading.status);
  if (options.json) return Print(Concat({reading.json, "\n"}));
  if (const std::string text = ListText(reading.view, options); !text.empty()) return Print(text);
  // For people; to a program the empty output says it.
  (void)platform::WriteError(
      Concat({Counted(0, options.command == ToolCommand::kDevices ? "device" : "item"),
              reading.view.rows.empty() ? "\n" : " that match\n"}));
  return kDone;
}

// Whole tables or documents one after the other, for pipes and files.
int ListRepeatedly(LocatorClient& client, const ToolOptions& options) {
  bool complained = false;
  do {
    const Reading reading = Read(client, options);
    if (reading.status == ClientStatus::kInterrupted || platform::OutputAbandoned()) return kDone;
    if (reading.status == ClientStatus::kOk) {
      complained = false;
      const std::string text = options.json ? Concat({reading.json, "\n"})
                                            : Concat({reading.view.title, ", ", NowText(), "\n",
                                                      ListText(reading.view, options), "\n"});
      if (const int status = Print(text); status != kDone) return status;
    } else if (!complained) {
      complained = true;
      Complain(TroubleOf(reading.status));
    }
  } while (!InterruptedWithin(*options.watchMs));
  return kDone;
}

// The user wants the shell back for a while.
int Suspend(platform::Keyboard& keyboard) {
  if (const int status = Print(LeaveScreen()); status != kDone) return status;
  keyboard.Suspend();
  return Print(EnterScreen());
}

// Draws the table anew at every key until it is time to ask again. False when the user, or the
// terminal, has had enough.
bool DrawUntilNextReading(LiveTable& table, platform::Keyboard& keyboard, std::uint32_t intervalMs,
                          int& status) {
  constexpr platform::TerminalSize kUsualSize{80, 24};
  const std::uint64_t start = platform::MonotonicMs();
  for (;;) {
    status = Print(table.Page(platform::OutputTerminalSize().value_or(kUsualSize)));
    const std::uint64_t passed = platform::MonotonicMs() - start;
    if (status != kDone) return false;
    if (passed >= intervalMs) return true;
    const platform::Waitable* const either[] = {&platform::InterruptRequest(),
                                                keyboard.valid() ? &keyboard : nullptr};
    const auto left = static_cast<std::uint32_t>(intervalMs - passed);
    if (platform::WaitForAny(either, left) != platform::WaitStatus::kSignalled) return true;
    if (Interrupted()) return false;
    for (const platform::KeyPress& press : keyboard.Take()) {
      if (press.key == platform::Key::kSuspend)
        status = Suspend(keyboard);
      else if (!table.Press(press))
        return false;
      if (status != kDone) return false;
    }
  }
}

int ShowLive(LocatorClient& client, const ToolOptions& options) {
  platform::Keyboard keyboard;
  LiveTable table(options, keyboard.valid());
  int status = Print(EnterScreen());
  while (status == kDone) {
    Reading reading = Read(client, options);
    if (reading.status == ClientStatus::kInterrupted) break;
    if (reading.status == ClientStatus::kOk)
      table.Show(std::move(reading.view));
    else
      table.ShowSilence(TroubleOf(reading.status));
    if (!DrawUntilNextReading(table, keyboard, *options.watchMs, status)) break;
  }
  const int restored = Print(LeaveScreen());
  return status == kDone ? restored : status;
}

}  // namespace

int RunListCommand(const ToolOptions& options) {
  LocatorClient client(ClientOptionsOf(options));
  if (!options.watchMs) return ListOnce(client, options);
  const ClientPresence presence;
  return OutputTakesSequences() && !options.json ? ShowLive(client, options)
                                                 : ListRepeatedly(client, options);
}

}  // namespace talvorn
