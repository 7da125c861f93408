// The worker that asks statically configured devices, listed in an INI file, for
// their status in cycles. It ends by itself when no usable file is configured.
#pragma once

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

// Starts the worker on a context whose lists are set. False when its thread could
// not be created.
bool StartStaticDevices(StaticDeviceContext& context);
void StopStaticDevices(StaticDeviceContext& context);

// Thread procedure. 1 when it ended because no file is usable, else 0.
std::uint32_t DeviceByHostName(StaticDeviceContext& context);

}  // namespace talvorn
