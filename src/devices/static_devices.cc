#include "devices/static_devices.h"

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "devices/status_query.h"
#include "platform/address.h"
#include "platform/device_file.h"
#include "platform/text_encoding.h"
#include "support/completed.h"
#include "support/debug_trace.h"
#include "support/settings.h"
#include "support/thread.h"

namespace talvorn {
namespace {

constexpr std::uint32_t kTickMs = 10;
constexpr std::uint32_t kShortestCycleTicks = 10;
constexpr std::uint32_t kQueryGapMs = 30;

// Whether the configured file can be worked with; says in the trace why not.
bool FileIsUsable(std::u16string_view path) {
  if (path.size() < kShortestDeviceFilePath) {
    Trace(u"DeviceByHostName: Warning : static devices ini file not accessible (name:%s)\n", path);
    return false;
  }
  if (platform::ReadDeviceFile(path).empty())
    Trace(u"DeviceByHostName: Info : static devices ini file has no entry (name:%s)\n", path);
  return true;
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
    const std::vector<platform::ListedDevice> listed = platform::ReadDeviceFile(path_);
    const auto devices = std::make_unique<StaticDevice[]>(listed.size());
    for (std::size_t i = 0; i < listed.size(); ++i) {
      StartQuery(devices[i], listed[i]);
      platform::SleepMs(kQueryGapMs);
    }
  }

  void StartQuery(StaticDevice& device, const platform::ListedDevice& listed) {
    const std::u16string& name = listed.name;
    if (name.size() > kLongestHostName) {
      Trace(
          u"DeviceByHostName: ERROR : hostname with size more than %u characters - ignore (is=%d "
          u"name:%s)\n",
          std::uint32_t{kLongestHostName}, static_cast<std::int32_t>(name.size()), name);
      return;
    }
    std::ranges::copy(name, device.host.begin());
    device.address = ConfiguredAddress(listed.address);
    device.validity = validity_;
    device.context = &context_;
    device.thread = StartThread("status-query", [&device] { return ThreadDeviceStatus(device); });
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

std::uint32_t ConfiguredAddress(const std::u16string& text) {
  if (text.empty()) return 0;
  const std::string narrow = platform::WideToNarrow(text);
  return platform::ParseIpv4(narrow.size() <= text.size() ? narrow.c_str() : "");
}

bool StartStaticDevices(StaticDeviceContext& context) {
  context.running.Set();
  context.thread = StartThread("static-devices", [&context] { return DeviceByHostName(context); });
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
  bool usable = false;
  CompleteWhile(context.running, [&] { readable = RetrieveValues(settings); });
  CompleteWhile(context.running, [&] {
    usable = FileIsUsable(readable ? settings.staticDevicesIniFile.data() : u"");
  });
  if (!usable) return 1;
  Worker(context, settings).Run();
  return 0;
}

}  // namespace talvorn
