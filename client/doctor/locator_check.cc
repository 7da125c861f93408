#include <cstdint>

#include "client/doctor/checks.h"
#include "client/stopwatch.h"
#include "command_line/concat.h"
#include "exchange/messages/messages.h"
#include "platform/named_object.h"
#include "platform/process_list.h"
#include "platform/text_encoding.h"
#include "support/lifetime.h"

namespace talvorn {
namespace {

constexpr std::string_view kCheck = "locator";

// "0.4"
std::string Milliseconds(std::uint64_t microseconds) {
  const std::uint64_t tenths = microseconds / 100;
  return Concat({std::to_string(tenths / 10), ".", std::to_string(tenths % 10)});
}

void TellSilence(const Examination& examination, ClientStatus status) {
  const bool runs = platform::NamedMutex::Open(kServiceMutex).valid();
  if (status == ClientStatus::kNoLocator) {
    examination.Fail(
        kCheck,
        runs ? "a locator runs, but answers nobody here" : "no locator runs on this machine",
        runs ? "End it and start it again; its own reports say why it does not serve."
             : "Start talvorn-locator.");
  } else {
    examination.Fail(kCheck, StatusText(status),
                     status == ClientStatus::kNoAnswer
                         ? "End the locator and start it again; it hangs or is overloaded."
                         : "See whether this account may use the locator's mailslots.");
  }
}

void TellLifetime(const Examination& examination, std::u16string_view commandLine) {
  if (!IsDynamic(commandLine)) {
    if (commandLine.empty())
      examination.Ok(kCheck, "the locator stays until it is ended");
    else
      examination.Warn(kCheck,
                       Concat({"the locator was started with '", platform::WideToUtf8(commandLine),
                               "', which means nothing to it"}),
                       "Start it with /dynamic alone, or with nothing.");
    return;
  }
  const std::uint32_t timeToLive = examination.settings.timeMulticastRequestAllowed;
  if (timeToLive == 0) {
    examination.Warn(kCheck,
                     "the locator was started with /dynamic, but \"Time Multicast Request "
                     "Allowed\" is 0, and it never ends",
                     "Set the time that it outlives its last client, in milliseconds.");
  } else {
    examination.Ok(kCheck, Concat({"the locator ends ", std::to_string(timeToLive),
                                   " ms after its last client"}));
  }
}

// The first one serves; the others ask the network and keep lists for nobody.
void TellProcesses(const Examination& examination) {
  const auto locators = platform::RunningPrograms(kLocatorProgram);
  if (locators.size() > 1) {
    examination.Warn(
        kCheck,
        Concat({std::to_string(locators.size()),
                " locators run on this machine, and only one of them serves programs"}),
        "End the others: a service, a task, a logon script or a user has started them.");
  } else if (locators.size() == 1 && locators.front().commandLine) {
    TellLifetime(examination, *locators.front().commandLine);
  }
}

}  // namespace

void CheckLocator(Examination& examination) {
  TellProcesses(examination);
  const Stopwatch watch;
  const auto version = examination.client.GetVersion();
  const std::uint64_t took = watch.microseconds();
  if (version.status == ClientStatus::kInterrupted) return;
  if (!version) return TellSilence(examination, version.status);
  examination.answers = true;
  examination.Ok(kCheck,
                 Concat({"locator ", version.value, " answers in ", Milliseconds(took), " ms"}));
  if (auto devices = examination.client.GetDevices())
    examination.devices = std::move(devices.value);
  const std::size_t count = examination.devices.size();
  examination.Ok(kCheck, count == 0 ? "it knows no device"
                                    : Concat({"it knows ", std::to_string(count),
                                              count == 1 ? " device" : " devices"}));
}

}  // namespace talvorn
