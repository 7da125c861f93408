#include "simulator/answer_schedule.h"

#include "simulator/device_model.h"

namespace talvorn {
namespace {

using platform::AddressFamily;

enum Tag : std::uint64_t { kDelayTag = 100, kLossTag, kAnnouncementLossTag };

}  // namespace

AnswerSchedule::AnswerSchedule(const ScheduleOptions& options)
    : options_(options), pendingIpv4_(options.devices), pendingIpv6_(options.devices) {
  if (options_.announceMs == 0) return;
  for (std::uint32_t device = 0; device < options_.devices; ++device)
    Push(std::uint64_t{device} * options_.announceMs / options_.devices, {.device = device});
}

void AnswerSchedule::Request(AddressFamily family, std::uint64_t nowMs) {
  const std::uint64_t request = Mix(options_.seed, ++requests_);
  const std::uint64_t spread = std::uint64_t{options_.delayMaxMs} - options_.delayMinMs + 1;
  std::vector<bool>& pending = Pending(family);
  for (std::uint32_t device = 0; device < options_.devices; ++device) {
    if (pending[device] || Lost(Mix(request, device, kLossTag))) continue;
    pending[device] = true;
    const std::uint64_t delay = options_.delayMinMs + Mix(request, device, kDelayTag) % spread;
    Push(nowMs + delay, {device, family});
  }
}

std::optional<std::uint64_t> AnswerSchedule::NextDueMs() const {
  if (entries_.empty()) return std::nullopt;
  return entries_.top().dueMs;
}

std::optional<DueAnswer> AnswerSchedule::Take(std::uint64_t nowMs) {
  while (!entries_.empty() && entries_.top().dueMs <= nowMs) {
    const Entry entry = entries_.top();
    entries_.pop();
    if (entry.answer.family != AddressFamily::kUnspecified) {
      Pending(entry.answer.family)[entry.answer.device] = false;
      return entry.answer;
    }
    Push(entry.dueMs + options_.announceMs, entry.answer);
    const std::uint64_t random =
        Mix(Mix(options_.seed, ++announcements_), entry.answer.device, kAnnouncementLossTag);
    if (!Lost(random)) return entry.answer;
  }
  return std::nullopt;
}

}  // namespace talvorn
