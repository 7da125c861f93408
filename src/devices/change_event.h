// Named events that tell clients of changes in the item list. Clients create them
// and wait on them; the locator pulses those that exist.
#pragma once

#include <cstdint>
#include <string>

namespace talvorn {

// The number that names the event of the whole list instead of one device.
inline constexpr std::uint32_t kWholeList = 0;

// "Global\DRAVIK_CHANGES_ITEM_LIST_TALVORN_0001234" for serial 1234.
[[nodiscard]] std::u16string ChangeEventName(std::uint32_t serial);

// Releases the clients that wait on the event at this moment, if it exists. A change
// that there is no memory to signal has happened all the same.
void SignalChange(std::uint32_t serial);

}  // namespace talvorn
