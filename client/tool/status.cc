#include "client/tool/status.h"

#include <algorithm>

#include "client/tool/session.h"
#include "client/tool/table.h"
#include "client/tool/views.h"
#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "discovery/datagram.h"
#include "platform/past_reports.h"
#include "platform/settings_store.h"
#include "platform/udp_drops.h"
#include "support/event_source.h"
#include "support/lifetime.h"

namespace talvorn {
namespace {

void AskLocator(Status& status, const ClientOptions& options) {
  LocatorClient client(options);
  auto version = client.GetVersion();
  status.answered = version.status;
  if (!version) return;
  status.version = std::move(version.value);
  if (const auto devices = client.GetDevices()) status.devices = devices.value.size();
  if (const auto items = client.GetItems()) status.items = items.value.size();
}

std::string LastReportOf(std::u16string_view source) {
  const auto reports = platform::PastReports({&source, 1}, 1);
  return reports.empty() ? std::string() : reports.back();
}

std::string_view LifetimeOf(const platform::RunningProgram& process) {
  if (!process.commandLine) return "unknown";
  return IsDynamic(*process.commandLine) ? "dynamic" : "permanent";
}

std::string LocatorText(const Status& status) {
  std::string text = status.answered == ClientStatus::kOk
                         ? EscapeForTerminal(status.version)
                         : std::string(StatusText(status.answered));
  for (const platform::RunningProgram& process : status.processes) {
    text.append(Concat({", process ", std::to_string(process.processId), " (", LifetimeOf(process),
                        " lifetime)"}));
  }
  return text;
}

std::string InterfaceText(const ExaminedInterface& one, const Status& status) {
  if (!one.used()) return Concat({"not used:", WhyUnused(one.description).what});
  std::string text = UsedAddresses(one);
  const auto heard = status.heard.find(one.description.name);
  if (heard == status.heard.end()) return text;
  if (heard->second.asked) text.append(*heard->second.asked ? ", asks" : ", does not ask");
  for (const std::string& asker : heard->second.askers)
    text.append(", another locator asks: ").append(asker);
  return text.append(", ").append(Counted(heard->second.devices.size(), "device")).append(" heard");
}

std::string SettingsText(const SettingList& settings) {
  const auto stored =
      std::ranges::count(settings.known, SettingSource::kStored, &SettingInForce::source);
  return Concat({std::to_string(stored), " of ", std::to_string(settings.known.size()), " set in ",
                 EscapeForTerminal(platform::SettingsPlace())});
}

std::string FirstLine(const std::string& text) {
  return EscapeForTerminal(std::string_view(text).substr(0, text.find('\n')));
}

bool IsShown(const ExaminedInterface& one) { return one.used() || !one.description.loopback; }

void WriteInterface(JsonWriter& json, const ExaminedInterface& one, const Status& status) {
  json.BeginObject();
  json.Key("name").String(one.description.name);
  json.Key("used").Bool(one.used());
  json.Key("reason").String(one.used() ? std::string_view()
                                       : WhyUnused(one.description).what.substr(1));
  json.Key("ipv4").BeginArray();
  for (const std::uint32_t address : one.ipv4) json.String(platform::Ipv4Text(address));
  json.EndArray().Key("ipv6").Bool(one.ipv6);
  const auto heard = status.heard.find(one.description.name);
  json.Key("asked");
  if (heard != status.heard.end() && heard->second.asked)
    json.Bool(*heard->second.asked);
  else
    json.Null();
  json.Key("otherLocators").BeginArray();
  if (heard != status.heard.end())
    for (const std::string& asker : heard->second.askers) json.String(asker);
  json.EndArray().Key("devicesHeard");
  if (heard != status.heard.end())
    json.Number(heard->second.devices.size());
  else
    json.Null();
  json.EndObject();
}

}  // namespace

Status TakeStatus(const ClientOptions& options, std::uint32_t listenMs) {
  Status status;
  AskLocator(status, options);
  status.processes = platform::RunningPrograms(kLocatorProgram);
  status.interfaces = ExamineInterfaces();
  std::erase_if(status.interfaces, [](const ExaminedInterface& one) { return !IsShown(one); });
  status.drops = platform::UdpReceiveDrops(kDiscoveryPort);
  status.settings = ReadSettingList();
  if (listenMs > 0) status.heard = HearOn(status.interfaces, listenMs, options.interrupt);
  status.lastRequest = LastReportOf(kSourceCastRequest);
  status.lastAnswer = LastReportOf(kSourceCastResponse);
  return status;
}

std::string StatusText(const Status& status) {
  Table table({"locator", LocatorText(status)});
  if (status.answered == ClientStatus::kOk) {
    table.AddRow({"knows", Concat({Counted(status.devices, "device"), ", ",
                                   Counted(status.items, "item")})});
  }
  for (const ExaminedInterface& one : status.interfaces)
    table.AddRow({EscapeForTerminal(one.description.name), InterfaceText(one, status)});
  if (status.drops)
    table.AddRow({"dropped", Counted(static_cast<std::size_t>(*status.drops), "datagram")});
  table.AddRow({"settings", SettingsText(status.settings)});
  if (!status.lastRequest.empty()) table.AddRow({"last request", FirstLine(status.lastRequest)});
  if (!status.lastAnswer.empty()) table.AddRow({"last answer", FirstLine(status.lastAnswer)});
  return table.Text();
}

void WriteStatus(JsonWriter& json, const Status& status) {
  const bool answers = status.answered == ClientStatus::kOk;
  json.BeginObject();
  json.Key("answers").Bool(answers);
  json.Key("trouble").String(answers ? "" : StatusText(status.answered));
  json.Key("version").String(status.version);
  json.Key("processes").BeginArray();
  for (const platform::RunningProgram& process : status.processes) {
    json.BeginObject().Key("id").Number(process.processId);
    json.Key("lifetime").String(LifetimeOf(process)).EndObject();
  }
  json.EndArray();
  json.Key("devices").Number(status.devices);
  json.Key("items").Number(status.items);
  json.Key("interfaces").BeginArray();
  for (const ExaminedInterface& one : status.interfaces) WriteInterface(json, one, status);
  json.EndArray().Key("drops");
  if (status.drops)
    json.Number(*status.drops);
  else
    json.Null();
  WriteSettings(json, status.settings);
  json.Key("lastRequest").String(status.lastRequest);
  json.Key("lastAnswer").String(status.lastAnswer);
  json.EndObject();
}

}  // namespace talvorn
