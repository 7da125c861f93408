// The system's event log: the Windows event log, or the journal (syslog where
// there is no journal). Reporting never blocks and never fails visibly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace talvorn::platform {

enum class EventKind : std::uint16_t { kError = 1, kWarning = 2, kInformation = 4 };

// Account of the calling thread: a SID on Windows, the account's name on Linux.
struct UserIdentity {
  std::vector<std::byte> bytes;
};
[[nodiscard]] std::optional<UserIdentity> CurrentUserIdentity();

class EventLog {
 public:
  [[nodiscard]] static EventLog Register(std::u16string_view sourceName);

  [[nodiscard]] bool valid() const { return state_ != nullptr; }

  // One entry with one insertion string; `user` may be null.
  void Report(EventKind kind, std::uint16_t category, std::uint32_t eventId,
              const UserIdentity* user, std::u16string_view text) const;

 private:
  struct State;
  std::shared_ptr<State> state_;  // null: not registered
};

}  // namespace talvorn::platform
