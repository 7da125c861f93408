#include <algorithm>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "client/doctor/checks.h"
#include "command_line/concat.h"
#include "devices/static_devices.h"
#include "devices/status_exchange.h"
#include "platform/device_file.h"
#include "platform/foreign_text.h"
#include "platform/text_encoding.h"
#include "platform/thread.h"

namespace talvorn {
namespace {

constexpr std::string_view kCheck = "static-devices";
// So many are asked at the same time.
constexpr std::size_t kBatch = 32;

// A static device, asked as the locator asks it.
struct Asked {
  platform::ListedDevice listed;
  StatusOutcome outcome = StatusOutcome::kUnresolved;
  std::string serial{};       // of its last reply
  platform::Thread thread{};  // its query

  explicit Asked(platform::ListedDevice device) : listed(std::move(device)) {}
  ~Asked() { thread.Join(); }
  Asked(const Asked&) = delete;
  Asked& operator=(const Asked&) = delete;

  void Ask() {
    outcome = ExchangeStatus(listed.name.c_str(), ConfiguredAddress(listed.address),
                             [this](std::uint32_t, FrameReceiver::Frame& frame) {
                               serial = frame.record->deviceSerial.view();
                             });
  }
};

void AskAll(std::vector<std::unique_ptr<Asked>>& devices, const Examination& examination) {
  for (std::size_t first = 0; first < devices.size(); first += kBatch) {
    const auto batch = std::span(devices).subspan(first, std::min(kBatch, devices.size() - first));
    for (const auto& device : batch)
      device->thread = platform::Thread::Start("doctor", [&asked = *device] {
        asked.Ask();
        return 0U;
      });
    for (const auto& device : batch) device->thread.Join();
    if (examination.Interrupted()) return;
  }
}

struct Trouble {
  std::string_view what;
  std::string_view advice;
};

Trouble TroubleOf(StatusOutcome outcome) {
  switch (outcome) {
    case StatusOutcome::kUnresolved:
      return {" has no address: its name cannot be resolved",
              "Correct the name, ask who keeps the name server, or give the section an IpAddress."};
    case StatusOutcome::kRefused:
      return {" accepts no connection on TCP port 4817",
              "Is it a device, is it started, and is there a way to its network?"};
    case StatusOutcome::kUnreachable:
      return {" does not answer on TCP port 4817",
              "Is it switched on, at this address, and does a firewall between drop the port?"};
    case StatusOutcome::kSilent:
      return {" accepts a connection, but sends no status", "Start the device anew."};
    case StatusOutcome::kNotUnderstood:
    case StatusOutcome::kAnswered:
      break;
  }
  return {" sends what is no status of a device",
          "Another program has TCP port 4817 there, or it is no device."};
}

std::string NameOf(const platform::ListedDevice& listed) {
  std::string name = platform::WideToUtf8(listed.name);
  return listed.address.empty() ? name
                                : Concat({name, " (", platform::WideToUtf8(listed.address), ")"});
}

// Why the locator does not even ask it; none when it does.
std::optional<Trouble> MistakeIn(const platform::ListedDevice& listed) {
  if (listed.name.size() > kLongestHostName)
    return Trouble{" has a name that is too long", "Shorten the name of its section."};
  if (ConfiguredAddress(listed.address) == ~std::uint32_t{0})
    return Trouble{" has an IpAddress that is no IPv4 address", "Correct its IpAddress."};
  return std::nullopt;
}

void Tell(const Examination& examination, const Asked& asked) {
  std::string name = NameOf(asked.listed);
  if (asked.outcome == StatusOutcome::kAnswered) {
    examination.Ok(kCheck, Concat({"static device ", name, " answers, serial ",
                                   platform::WideToUtf8(platform::ForeignToWide(asked.serial))}));
    return;
  }
  const Trouble trouble = TroubleOf(asked.outcome);
  examination.Fail(kCheck, Concat({"static device ", name, trouble.what}),
                   std::string(trouble.advice));
}

}  // namespace

void CheckStaticDevices(Examination& examination) {
  const std::u16string_view path = examination.settings.staticDevicesIniFile.data();
  if (path.size() < kShortestDeviceFilePath) return;
  std::vector<std::unique_ptr<Asked>> devices;
  for (platform::ListedDevice& listed : platform::ReadDeviceFile(path)) {
    examination.listedAddresses.insert(platform::WideToUtf8(listed.address));
    if (const auto mistake = MistakeIn(listed))
      examination.Fail(kCheck, Concat({"static device ", NameOf(listed), mistake->what}),
                       std::string(mistake->advice));
    else
      devices.push_back(std::make_unique<Asked>(std::move(listed)));
  }
  AskAll(devices, examination);
  if (examination.Interrupted()) return;
  for (const auto& device : devices) Tell(examination, *device);
}

}  // namespace talvorn
