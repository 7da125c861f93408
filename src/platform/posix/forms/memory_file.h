// Sealed memory files: bytes that travel between processes as a descriptor and that
// nobody can change on the way.
#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include "platform/mailslot.h"
#include "platform/posix/descriptor.h"

namespace talvorn::platform {

// What is larger is no message: a memory file costs its sender next to nothing, but its
// reader the size.
inline constexpr std::size_t kLargestMessage = 256 << 20;

[[nodiscard]] std::size_t SizeOf(MessageParts parts);

// None when the system has no room for it.
[[nodiscard]] Descriptor MakeMemoryFile(MessageParts content);

// The content of a sealed memory file of at most `largest` bytes; none for any other kind
// of descriptor, or none at all.
[[nodiscard]] std::optional<Message> MapMemoryFile(int fd, std::size_t largest);

// True when the file holds this and nothing more.
[[nodiscard]] bool HoldsContent(int fd, MessageParts content);

}  // namespace talvorn::platform
