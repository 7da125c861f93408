#include "devices/static_devices.h"

#include <array>
#include <string_view>

#include "platform/ini_file.h"
#include "support/debug_trace.h"
#include "support/settings.h"

namespace talvorn {
namespace {

constexpr std::size_t kShortestPath = 8;

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
  const bool readable = RetrieveValues(settings);
  const std::u16string_view path = readable ? settings.staticDevicesIniFile.data() : u"";
  if (!FileIsUsable(path)) return 1;

  const platform::Waitable* const cleared[] = {&context.running.cleared()};
  while (context.running) (void)platform::WaitForAny(cleared, std::nullopt);
  return 0;
}

}  // namespace talvorn
