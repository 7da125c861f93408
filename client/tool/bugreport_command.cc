// bugreport: one text file with all that helps to help.
#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "client/doctor/examination.h"
#include "client/tool/commands.h"
#include "client/tool/finding_view.h"
#include "client/tool/session.h"
#include "client/tool/stand_ins.h"
#include "client/tool/status.h"
#include "client/tool/views.h"
#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "platform/account.h"
#include "platform/clock.h"
#include "platform/device_file.h"
#include "platform/file_replacement.h"
#include "platform/past_reports.h"
#include "platform/process.h"
#include "platform/terminal_escape.h"
#include "platform/text_encoding.h"
#include "support/event_source.h"
#include "version.h"

namespace talvorn {
namespace {

constexpr std::size_t kMostReports = 200;

// Collects the report's parts, with names or without.
class BugReport {
 public:
  explicit BugReport(const ToolOptions& options)
      : options_(options), anonymous_(options.anonymous) {}

  // False when the user wants to end.
  bool Collect() {
    LocatorClient client(ClientOptionsOf(options_));
    auto devices = client.GetDevices();
    auto items = client.GetItems();
    status_ = TakeStatus(ClientOptionsOf(options_), 0);
    if (anonymous_) ForgetNames(devices.value);

    Add(anonymous_ ? "TALVORN report without names" : "TALVORN report", Versions());
    Add("doctor", Findings());
    Add("status", StatusText(status_));
    Add("settings", TableText(ViewOfSettings(status_.settings)));
    Add("devices", TableText(ViewOfDevices(devices.value)));
    Add("items", TableText(ItemsView(items.value)));
    if (!anonymous_) Add("reports", Reports());
    return !Interrupted();
  }

  [[nodiscard]] std::string Text() const {
    if (anonymous_) return standIns_.WithoutNames(text_);
    return text_;
  }

 private:
  void Add(std::string_view title, std::string_view content) {
    text_.append(Concat({text_.empty() ? "" : "\n", "== ", title, "\n\n", content}));
  }

  // Learns the names that may stand anywhere, and takes those out that a device says itself.
  void ForgetNames(std::vector<DeviceRecord>& devices) {
    for (DeviceRecord& device : devices) {
      Replace("device", device.deviceAlias);
      Replace("host", device.hostAlias);
    }
    RegistryValues settings;
    (void)RetrieveValues(settings);
    for (const auto& listed : platform::ReadDeviceFile(settings.staticDevicesIniFile.data()))
      Learn("device", EscapeForTerminal(platform::WideToUtf8(listed.name)));
    Learn("host", platform::MachineName());
    const std::string account = platform::AccountText();
    const std::string_view withoutSession = std::string_view(account).substr(0, account.find(','));
    Learn("account", withoutSession.substr(withoutSession.find('\\') + 1));
    Learn("account", withoutSession);
    // Who answers stands in the reports.
    status_.lastRequest.clear();
    status_.lastAnswer.clear();
  }

  void Learn(std::string_view kind, std::string_view name) {
    if (!name.empty()) (void)standIns_.For(kind, name);
  }

  template <class Field>
  void Replace(std::string_view kind, Field& field) {
    if (!field.view().empty()) field.Assign(standIns_.For(kind, EscapeForeign(field.view())));
  }

  std::string Versions() const {
    return Concat({"talvorn    ", kVersion, "\nlocator    ", EscapeForTerminal(status_.version),
                   "\nsystem     ", platform::SystemText(), "\nmachine    ",
                   platform::MachineName(), "\naccount    ", platform::AccountText(),
                   "\ntime       ", TimestampText(platform::SystemClock().SystemTime()), "\n"});
  }

  std::string Findings() const {
    std::string text;
    const ExaminationOptions wanted = {.timeoutMs = options_.timeoutMs.value_or(kDefaultTimeoutMs),
                                       .interrupt = &platform::InterruptRequest()};
    (void)Examine(wanted,
                  [&](const Finding& finding) { text.append(FindingLine(finding, false)); });
    return text;
  }

  [[nodiscard]] View ItemsView(const std::vector<DeviceItem>& items) const {
    View view = ViewOfItems(items);
    const auto content = std::ranges::find(view.headings, "CONTENT") - view.headings.begin();
    if (anonymous_)
      for (ViewRow& row : view.rows) row.cells[static_cast<std::size_t>(content)].assign(1, '-');
    return view;
  }

  static std::string Reports() {
    constexpr std::array kSources = {kSourceTalvorn, kSourceCastRequest, kSourceCastReceive,
                                     kSourceCastResponse};
    std::string text;
    for (const std::string& report : platform::PastReports(kSources, kMostReports))
      text.append(platform::EscapeForTerminal(platform::Utf8ToWide(report), u"\n\t")).append("\n");
    if (text.empty()) text.append("none can be read by this account\n");
    return text;
  }

  const ToolOptions& options_;
  const bool anonymous_;
  Status status_;
  StandIns standIns_;
  std::string text_;
};

// "talvorn-report-20261123-140307.txt"
std::string UsualName() {
  std::string stamp = TimestampText(platform::SystemClock().SystemTime());
  std::erase_if(stamp, [](char c) { return c == '-' || c == ':'; });
  std::ranges::replace(stamp, 'T', '-');
  return Concat({"talvorn-report-", stamp.substr(0, stamp.find('.')), ".txt"});
}

std::string Announcement(const ToolOptions& options, std::string_view file) {
  return Concat({EscapeForTerminal(file),
                 " will contain what doctor, status, settings, devices and items say,\n"
                 "with addresses and versions, ",
                 options.anonymous ? "but without names of devices, hosts and accounts,\n"
                                     "without what items hold, and without the locator's reports.\n"
                                   : "the names of this machine and account,\n"
                                     "and the locator's last 200 reports.\n",
                 "This takes some seconds.\n"});
}

}  // namespace

int RunBugReportCommand(const ToolOptions& options) {
  std::string file = options.outputFile;
  if (file.empty()) file = UsualName();
  if (const int status = Print(Announcement(options, file)); status != kDone) return status;
  BugReport report(options);
  if (!report.Collect()) return kDone;
  if (const int status = WriteFile(file, report.Text()); status != kDone) return status;
  return Print(Concat({EscapeForTerminal(file), " is written. Read it before you send it.\n"}));
}

}  // namespace talvorn
