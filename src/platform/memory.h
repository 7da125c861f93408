// The memory that the process holds.
#pragma once

namespace talvorn::platform {

// Gives memory back to the system that has been freed but is kept for later
// allocations. May be called by any thread; takes milliseconds after large releases.
void GiveBackFreedMemory();

}  // namespace talvorn::platform
