#include "platform/bounded_resolution.h"

#include <atomic>
#include <memory>
#include <utility>

#include "platform/thread.h"

namespace talvorn::platform {
namespace {

// One of those that are under way, if there is room for one more.
struct Resolution {
  Resolution() : hasRoom(underWay.fetch_add(1) < kMostResolutions) {}
  ~Resolution() { underWay.fetch_sub(1); }

  static inline std::atomic<std::uint32_t> underWay = 0;
  const bool hasRoom;
  std::function<std::optional<std::uint32_t>()> resolve{};
  std::optional<std::uint32_t> result{};
};

}  // namespace

std::optional<std::uint32_t> ResolveWithin(std::uint32_t limitMs,
                                           std::function<std::optional<std::uint32_t>()> resolve) {
  const auto resolution = std::make_shared<Resolution>();
  if (!resolution->hasRoom) return std::nullopt;
  resolution->resolve = std::move(resolve);
  Thread thread = Thread::Start("resolve", [resolution] {
    resolution->result = resolution->resolve();
    return 0u;
  });
  if (!thread.valid() || !thread.JoinFor(limitMs)) return std::nullopt;
  return resolution->result;
}

}  // namespace talvorn::platform
