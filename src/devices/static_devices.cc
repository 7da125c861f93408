#include "devices/static_devices.h"

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "devices/status_query.h"
#include "platform/address.h"
#include "platform/ini_file.h"
#include "platform/text_encoding.h"
#include "support/completed.h"
#include "support/debug_trace.h"
#include "support/settings.h"

namespace talvorn {
namespace {

constexpr std::size_t kShortestPath = 8;
constexpr std::uint32_t kTickMs = 10;
constexpr std::uint32_t kShortestCycleTicks = 10;
constexpr std::uint32_t kQueryGapMs = 30;
constexpr std::size_t kNamesStep = 64;
constexpr std::size_t kAddressTextSize = 100;

// Whether the configured file can be worked with; says in the trace why not.
bool FileIsUsable(std::u16string_view path) {
  if (path.size() < kShortestPath) {
    Trace(u"DeviceByHostName: Warning : static devices ini file not accessible (name:%s)\n", path);
    return false;
  }
  std::array<char16_t, 4> probe{};
  if (platform::ProfileSectionNames(probe, path) == 0)
    Trace(u"DeviceByHostName: Info : static devices ini file has no entry (name:%s)\n", path);
  return true;
}

// The file's section names in its order.
std::vector<std::u16string> SectionNames(std::u16string_view path) {
  std::vector<char16_t> buffer(kNamesStep);
  std::uint32_t length = platform::ProfileSectionNames(buffer, path);
  while (length + 2 >= buffer.size()) {
    buffer.resize(buffer.size() + kNamesStep);
    length = platform::ProfileSectionNames(buffer, path);
  }
  std::vector<std::u16string> names;
  std::u16string_view rest(buffer.data(), length);
  while (!rest.empty()) {
    const std::u16string_view name = rest.substr(0, rest.find(u'\0'));
    if (name.empty()) break;
    names.emplace_back(name);
    rest.remove_prefix(std::min(name.size() + 1, rest.size()));
  }
  return names;
}

// The address that a section gives for its device, in network byte order; 0 when it
// gives none. A text that is no address, or that the narrow code page has no room for,
// gives 255.255.255.255, where nobody is.
std::uint32_t ConfiguredAddress(std::u16string_view section, std::u16string_view path) {
  std::array<char16_t, kAddressTextSize> text{};
  if (platform::ProfileString(section, u"IpAddress", text, path) == 0) return 0;
  const std::string narrow = platform::WideToNarrow({text.data(), text.size()});
  return platform::ParseIpv4(narrow.size() <= kAddressTextSize ? narrow.c_str() : "");
}

class Worker {
 public:
  Worker(StaticDeviceContext& context, const RegistryValues& settings)
      : context_(context),
        path_(settings.staticDevicesIniFile.data()),
        validity_(settings.timeResponseValidIfStatic),
        cycleTicks_(std::max(settings.timeRequestGapIfStatic / kTickMs, kShortestCycleTicks)) {}

  void Run() {
    while (context_.running) {
      (void)Completed([this] { Cycle(); });
      Pause(std::uint64_t{cycleTicks_ - 1} * kTickMs);
    }
  }

 private:
  // Ends when the queries of all listed devices have ended, also when the worker is
  // stopped meanwhile.
  void Cycle() {
    const std::vector<std::u16string> names = SectionNames(path_);
    const auto devices = std::make_unique<StaticDevice[]>(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
      StartQuery(devices[i], names[i]);
      platform::SleepMs(kQueryGapMs);
    }
  }

  void StartQuery(StaticDevice& device, const std::u16string& name) {
    if (name.size() > kLongestHostName) {
      Trace(
          u"DeviceByHostName: ERROR : hostname with size more than %u characters - ignore (is=%d "
          u"name:%s)\n",
          std::uint32_t{kLongestHostName}, static_cast<std::int32_t>(name.size()), name);
      return;
    }
    std::ranges::copy(name, device.host.begin());
    device.address = ConfiguredAddress(name, path_);
    device.validity = validity_;
    device.context = &context_;
    device.thread =
        platform::Thread::Start("status-query", [&device] { return ThreadDeviceStatus(device); });
  }

  // Ends early when the worker is stopped.
  void Pause(std::uint64_t milliseconds) {
    const platform::Waitable* const cleared[] = {&context_.running.cleared()};
    (void)platform::WaitForAny(cleared, static_cast<std::uint32_t>(milliseconds));
  }

  StaticDeviceContext& context_;
  const std::u16string_view path_;  // in the settings
  const std::uint32_t validity_;
  const std::uint32_t cycleTicks_;
};

}  // namespace

bool StartStaticDevices(StaticDeviceContext& context) {
  context.running.Set();
  context.thread =
      platform::Thread::Start("static-devices", [&context] { return DeviceByHostName(context); });
  return context.thread.valid();
}

void StopStaticDevices(StaticDeviceContext& context) {
  Trace(u"DeviceByHostName Stop");
  context.running.Clear();
  context.thread.Join();
}

std::uint32_t DeviceByHostName(StaticDeviceContext& context) {
  RegistryValues settings;
  bool readable = false;
  CompleteWhile(context.running, [&] { readable = RetrieveValues(settings); });
  if (!FileIsUsable(readable ? settings.staticDevicesIniFile.data() : u"")) return 1;
  Worker(context, settings).Run();
  return 0;
}

}  // namespace talvorn
