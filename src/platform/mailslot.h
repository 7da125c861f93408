// An inbox for whole messages: any process on this machine may write, one thread reads. Names are
// those of Windows, `\\.\mailslot\NAME`.
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

// The bytes of one message, which stand as long as this or a copy of it.
class Message {
 public:
  Message() = default;
  Message(std::shared_ptr<const void> owner, std::span<const std::byte> bytes)
      : owner_(std::move(owner)), bytes_(bytes) {}

  [[nodiscard]] std::span<const std::byte> bytes() const { return bytes_; }

 private:
  std::shared_ptr<const void> owner_;
  std::span<const std::byte> bytes_;
};

class Mailslot {
 public:
  Mailslot() = default;  // none
  Mailslot(Mailslot&& other) noexcept = default;
  Mailslot& operator=(Mailslot&& other) noexcept = default;

  // A new mailslot; none when the name is no mailslot name, is taken by a living process, or the
  // system refuses. Without `security` everyone may write, since the locator may run as another
  // user; on Linux only the locator's account if that is this one.
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
  [[nodiscard]] Taken Take(Message& message, std::size_t largest);

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

// Writes one message to an existing mailslot. Waits at most `limitMs` for room. kFailed for a name
// that is none (IsMailslotName).
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
