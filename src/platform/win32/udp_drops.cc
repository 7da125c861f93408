#include "platform/udp_drops.h"

namespace talvorn::platform {

std::optional<std::uint64_t> UdpReceiveDrops(std::uint16_t) { return std::nullopt; }

}  // namespace talvorn::platform
