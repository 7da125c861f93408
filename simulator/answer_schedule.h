// When the simulated devices send: answers to requests after their delay, and
// announcements at their interval. Random times and losses follow from the seed, the
// device and the number of the request alone.
#pragma once

#include <cstdint>
#include <optional>
#include <queue>
#include <vector>

#include "platform/address.h"

namespace talvorn {

struct ScheduleOptions {
  std::uint32_t devices = 1;
  std::uint32_t announceMs = 0;
  std::uint32_t delayMinMs = 0;
  std::uint32_t delayMaxMs = 0;
  std::uint32_t lossPerMille = 0;
  std::uint32_t seed = 1;
};

struct DueAnswer {
  std::uint32_t device = 0;
  // kUnspecified: an announcement, over every family in use.
  platform::AddressFamily family = platform::AddressFamily::kUnspecified;
};

// Times are milliseconds since the start.
class AnswerSchedule {
 public:
  explicit AnswerSchedule(const ScheduleOptions& options);

  // A request was heard. A device that has not answered the last one yet answers
  // both at once.
  void Request(platform::AddressFamily family, std::uint64_t nowMs);

  [[nodiscard]] std::optional<std::uint64_t> NextDueMs() const;
  // What is to be sent by now, in order of time; lost answers never come up.
  [[nodiscard]] std::optional<DueAnswer> Take(std::uint64_t nowMs);

 private:
  struct Entry {
    std::uint64_t dueMs = 0;
    std::uint64_t order = 0;
    DueAnswer answer;
    bool operator>(const Entry& other) const {
      return dueMs != other.dueMs ? dueMs > other.dueMs : order > other.order;
    }
  };

  void Push(std::uint64_t dueMs, const DueAnswer& answer) {
    entries_.push({dueMs, pushed_++, answer});
  }
  [[nodiscard]] bool Lost(std::uint64_t random) const {
    return random % 1'000 < options_.lossPerMille;
  }
  std::vector<bool>& Pending(platform::AddressFamily family) {
    return family == platform::AddressFamily::kIpv4 ? pendingIpv4_ : pendingIpv6_;
  }

  ScheduleOptions options_;
  std::priority_queue<Entry, std::vector<Entry>, std::greater<>> entries_;
  std::vector<bool> pendingIpv4_;
  std::vector<bool> pendingIpv6_;
  std::uint64_t pushed_ = 0;
  std::uint64_t requests_ = 0;
  std::uint64_t announcements_ = 0;
};

}  // namespace talvorn
