#include "platform/bounded_resolution.h"

#include <atomic>
#include <memory>
#include <utility>

#include "platform/thread.h"

namespace talvorn::platform {
namespace {

// One of the resolutions that may be under way.
class Place {
 public:
  Place() : taken_(count_.fetch_add(1) < kMostResolutions) {}
  ~Place() { count_.fetch_sub(1); }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  [[nodiscard]] bool taken() const { return taken_; }

 private:
  static inline std::atomic<std::uint32_t> count_ = 0;
  const bool taken_;
};

struct Resolution {
  Place place;
  std::function<std::optional<std::uint32_t>()> resolve;
  std::optional<std::uint32_t> result;
};

}  // namespace

std::optional<std::uint32_t> ResolveWithin(std::uint32_t limitMs,
                                           std::function<std::optional<std::uint32_t>()> resolve) {
  const auto resolution = std::make_shared<Resolution>();
  if (!resolution->place.taken()) return std::nullopt;
  resolution->resolve = std::move(resolve);
  Thread thread = Thread::Start("resolve", [resolution] {
    resolution->result = resolution->resolve();
    return 0u;
  });
  if (!thread.valid() || !thread.JoinFor(limitMs)) return std::nullopt;
  return resolution->result;
}

}  // namespace talvorn::platform
