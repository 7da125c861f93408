// One status query of a statically configured device: connect over TCP, send one
// request, hand the replies' records and items to the two lists. Reports nothing; a
// device that cannot be reached leaves the lists as they are.
#pragma once

#include <cstdint>

#include "devices/static_devices.h"

namespace talvorn {

// Thread procedure; returns 0.
std::uint32_t ThreadDeviceStatus(const StaticDevice& device);

}  // namespace talvorn
