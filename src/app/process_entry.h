// Process entry and lifetime. Permanent mode runs until the process is ended from
// outside; dynamic mode ("/dynamic") ends a time to live after the last client let
// go of its mutex. LocatorMain is declared in platform/entry.h.
#pragma once

#include <cstdint>
#include <optional>

namespace talvorn {

// What the dynamic mode's countdown shows after a pass without a client: whole
// seconds left, or nothing. `elapsedMs` counts from the last restart of the timer.
[[nodiscard]] std::optional<std::uint32_t> CountdownSeconds(std::uint32_t timeToLiveMs,
                                                            std::uint64_t elapsedMs);

}  // namespace talvorn
