// A bound for the resolving of names: the system's resolver cannot be told to stop, and
// waits for ever for a name server that takes a TCP connection and then says nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace talvorn::platform {

// As many resolutions are under way at most, those included that were left behind.
inline constexpr std::uint32_t kMostResolutions = 256;

// The IPv4 address that `resolve` gives within `limitMs`. One that takes longer is left behind in a
// thread of its own, and must own what it uses. None at once when too many are under way.
[[nodiscard]] std::optional<std::uint32_t> ResolveWithin(
    std::uint32_t limitMs, std::function<std::optional<std::uint32_t>()> resolve);

}  // namespace talvorn::platform
