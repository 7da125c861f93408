// The service thread: builds every long-lived component, starts them in a fixed
// order, watches the network interfaces until it is told to end, and stops
// everything in a fixed order.
#pragma once

#include <cstdint>

#include "support/run_flag.h"

namespace talvorn {

// Thread procedure. Runs until `RunVariable` is cleared; returns 0.
std::uint32_t ThreadServiceMain(const RunFlag& RunVariable);

}  // namespace talvorn
