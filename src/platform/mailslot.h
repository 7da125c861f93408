// Mailslot: a message-framed inbox that programs on this machine write to.
// One thread reads it; any process may write. Names are those of Windows,
// `\\.\mailslot\NAME`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/mailslot_name.h"
#include "platform/security.h"
#include "platform/waitable.h"

namespace talvorn::platform {

class Mailslot {
 public:
  Mailslot() = default;  // none
  Mailslot(Mailslot&& other) noexcept = default;
  Mailslot& operator=(Mailslot&& other) noexcept = default;

  // A new mailslot without limit on the message size. None when the name is no
  // mailslot name, is taken by a living process, or the system refuses. A null
  // `security` means that everyone may write, since the locator that answers may
  // run as another user; on Linux only its own account where that is the locator's.
  [[nodiscard]] static Mailslot Create(std::u16string_view name,
                                       const SecurityAttributes* security);

  [[nodiscard]] bool valid() const { return state_ != nullptr; }

  // From now on takes only what the account has written that owns the mailslot `name`,
  // where the system attests who writes (Linux). False when there is none such.
  [[nodiscard]] bool AcceptOnlyFromOwnerOf(std::u16string_view name);

  // kLost: one was taken out that is larger than wanted, or is nothing to read.
  enum class Taken { kMessage, kNone, kLost, kFailed };
  // Takes the next message, of at most `largest` bytes, out of the mailslot. Does not
  // wait for one. Without memory for it, it is still there where the system can.
  [[nodiscard]] Taken Take(std::vector<std::byte>& message, std::size_t largest);

  // Blocks until a message waits (kSignalled), `wake` is signalled or the limit
  // has passed (kTimeout for both).
  [[nodiscard]] WaitStatus WaitForMessage(const Waitable& wake, WaitLimit limit);

 private:
  struct State;
  explicit Mailslot(std::shared_ptr<State> state) : state_(std::move(state)) {}

  std::shared_ptr<State> state_;
};

enum class MailslotWrite { kWritten, kAbsent, kFull, kFailed };

// A message in pieces that need not stand together.
using MessageParts = std::span<const std::span<const std::byte>>;

// Opens the existing mailslot `name`, writes the message in one write and closes
// it. Waits at most `limitMs` for room. The name is the caller's to check
// (IsMailslotName): kFailed for anything that is not one.
[[nodiscard]] MailslotWrite WriteMailslot(std::u16string_view name, MessageParts message,
                                          std::uint32_t limitMs);
[[nodiscard]] inline MailslotWrite WriteMailslot(std::u16string_view name,
                                                 std::span<const std::byte> message,
                                                 std::uint32_t limitMs) {
  return WriteMailslot(name, MessageParts(&message, 1), limitMs);
}

// True while some process has a mailslot of this name.
[[nodiscard]] bool MailslotExists(std::u16string_view name);

}  // namespace talvorn::platform
