#include "platform/fault_injection.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>

namespace talvorn::platform {
namespace {

struct Plan {
  int skip = 0;
  int times = 0;
  int error = 0;
};

std::atomic<bool> anyArmed{false};
std::mutex plansMutex;
std::array<Plan, static_cast<std::size_t>(Fault::kCount)> plans;

}  // namespace

void ArmFault(Fault fault, int times, int skip, int error) {
  const std::lock_guard lock(plansMutex);
  plans[static_cast<std::size_t>(fault)] = {skip, times, error};
  anyArmed.store(true, std::memory_order_relaxed);
}

void DisarmFaults() {
  const std::lock_guard lock(plansMutex);
  plans.fill({});
  anyArmed.store(false, std::memory_order_relaxed);
}

bool FaultHits(Fault fault, int* error) {
  if (!anyArmed.load(std::memory_order_relaxed)) return false;
  const std::lock_guard lock(plansMutex);
  Plan& plan = plans[static_cast<std::size_t>(fault)];
  if (plan.times <= 0) return false;
  if (plan.skip > 0) {
    --plan.skip;
    return false;
  }
  --plan.times;
  if (error != nullptr) *error = plan.error;
  return true;
}

}  // namespace talvorn::platform
