// The worker that asks statically configured devices for their status: in every cycle
// it reads the INI file that lists them and queries all of them at the same time. It
// ends by itself when no usable file is configured.
//
// A section of the file is a device. Its name is resolved unless the key "IpAddress"
// gives a dotted address; other keys are ignored.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "devices/item_list.h"
#include "devices/response_list.h"
#include "platform/thread.h"
#include "support/run_flag.h"

namespace talvorn {

// Shared by the service thread and the worker; the service thread owns it.
struct StaticDeviceContext {
  platform::Thread thread;
  RunFlag running;
  CResponseList* responses = nullptr;
  CItemList* items = nullptr;
};

// A shorter path of the file is taken for none.
inline constexpr std::size_t kShortestDeviceFilePath = 8;
inline constexpr std::size_t kLongestHostName = 1'025;

// One listed device of one cycle. Goes only after its query has ended.
struct StaticDevice {
  StaticDevice() = default;
  ~StaticDevice() { thread.Join(); }
  StaticDevice(const StaticDevice&) = delete;
  StaticDevice& operator=(const StaticDevice&) = delete;

  platform::Thread thread;                            // its query
  std::array<char16_t, kLongestHostName + 1> host{};  // section name, terminated
  std::uint32_t address = 0;                          // network byte order; 0: resolve the name
  std::uint32_t validity = 0;                         // of its answers, ms
  StaticDeviceContext* context = nullptr;
};

// The address that a section gives for its device, in network byte order; 0 when it gives none. A
// text that is no address, or that takes more bytes in the narrow code page than it has
// characters, gives 255.255.255.255, where nobody is.
[[nodiscard]] std::uint32_t ConfiguredAddress(const std::u16string& text);

// Starts the worker on a context whose lists are set. False when its thread could
// not be created.
bool StartStaticDevices(StaticDeviceContext& context);
// Returns when the worker and the queries that are under way have ended.
void StopStaticDevices(StaticDeviceContext& context);

// Thread procedure. 1 when it ended because no file is usable, else 0.
std::uint32_t DeviceByHostName(StaticDeviceContext& context);

}  // namespace talvorn
