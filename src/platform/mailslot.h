// Mailslot: a message-framed inbox that programs on this machine write to.
// One thread reads it; any process may write. Names are those of Windows,
// `\\.\mailslot\NAME`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "platform/event.h"
#include "platform/security.h"
#include "platform/waitable.h"

namespace talvorn::platform {

class Mailslot {
 public:
  Mailslot();  // none
  ~Mailslot();
  Mailslot(Mailslot&& other) noexcept;
  Mailslot& operator=(Mailslot&& other) noexcept;

  // A new mailslot without limit on the message size. None when the name is no
  // mailslot name, is taken by a living process, or the system refuses. A null
  // `security` means that everyone may write, since the locator that answers may
  // run as another user; on Linux only its own account where that is the locator's.
  [[nodiscard]] static Mailslot Create(std::u16string_view name, std::uint32_t readTimeoutMs,
                                       const SecurityAttributes* security);

  [[nodiscard]] bool valid() const { return state_ != nullptr; }

  // From now on takes only what the account has written that owns the mailslot `name`,
  // where the system attests who writes (Linux). False when there is none such.
  [[nodiscard]] bool AcceptOnlyFromOwnerOf(std::u16string_view name);

  struct Waiting {
    std::optional<std::size_t> nextSize;  // bytes; none when no message waits
    std::uint32_t count = 0;              // messages known to wait, at least
  };
  // None when the query fails.
  [[nodiscard]] std::optional<Waiting> Query();

  // Reads the next message into `buffer`; `readEvent` is the event of an
  // overlapped read. Number of bytes read; none when the read fails (the message
  // is lost then, as is one that is larger than the buffer).
  [[nodiscard]] std::optional<std::size_t> Read(std::span<std::byte> buffer,
                                                const Event& readEvent);

  // Blocks until a message waits (kSignalled), `wake` is signalled or the limit
  // has passed (kTimeout for both).
  [[nodiscard]] WaitStatus WaitForMessage(const Waitable& wake, WaitLimit limit);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

enum class MailslotWrite { kWritten, kAbsent, kFull, kFailed };

// Opens the existing mailslot `name`, writes `message` in one write and closes
// it. Waits at most `limitMs` for room. The name is the caller's to check
// (IsMailslotName): kFailed for anything that is not one.
[[nodiscard]] MailslotWrite WriteMailslot(std::u16string_view name,
                                          std::span<const std::byte> message,
                                          std::uint32_t limitMs);

// True while some process has a mailslot of this name.
[[nodiscard]] bool MailslotExists(std::u16string_view name);

// True for `\\.\mailslot\` (any case), on this machine, followed by a name or a path of
// names with backslashes between them, none of them empty, "." or "..": no slashes and
// no control characters.
[[nodiscard]] bool IsMailslotName(std::u16string_view name);

}  // namespace talvorn::platform
