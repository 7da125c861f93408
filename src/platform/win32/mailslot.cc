// Mailslots of the system. A message that waits signals nothing that a thread could
// wait on, so who waits for one looks every few milliseconds.
//
// A mailslot of Windows takes messages as long as there is memory. Elsewhere (Wine) it
// holds a limited number of bytes and a write waits for room; writes are therefore
// overlapped, and cancelled when the time is up.
#include "platform/mailslot.h"

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/fault_injection.h"
#include "platform/thread.h"
#include "platform/win32/dword_size.h"
#include "platform/win32/everyone_access.h"
#include "platform/win32/handle.h"
#include "platform/win32/security_native.h"
#include "platform/win32/wait.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

// How often a waiting thread looks: soon at first, for the answer to a request.
constexpr std::uint32_t kFirstLookMs = 1;
constexpr std::uint32_t kLookMs = 10;

// So long, at least, a write that the system has begun may take.
constexpr std::uint32_t kPendingWriteMs = 20;

// The size that Wine reports for every message from there on. Such a message is read
// into a large buffer before anybody is told of it.
constexpr std::size_t kUncertainSize = 65'536;
constexpr std::size_t kLargestUncertain = 4 << 20;

FileHandle OpenForWriting(const std::u16string& name) {
  // Whoever owns the mailslot learns nothing of the writer's account.
  return FileHandle(CreateFileW(
      ToNative(name), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS,
      nullptr));
}

// Ends an overlapped operation that has begun: none of its memory is in use afterwards.
// True when it was done all the same.
bool CancelAndFinish(HANDLE file, OVERLAPPED& operation) {
  (void)CancelIoEx(file, &operation);
  DWORD transferred = 0;
  return GetOverlappedResult(file, &operation, &transferred, TRUE) != FALSE;
}

// One write of the whole message. One that does not end at once may take until the limit.
MailslotWrite Deliver(HANDLE file, std::span<const std::byte> message, std::uint32_t limitMs) {
  const KernelHandle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!done.valid()) return MailslotWrite::kFailed;
  OVERLAPPED operation{};
  operation.hEvent = done.get();
  if (WriteFile(file, message.data(), static_cast<DWORD>(message.size()), nullptr, &operation) ==
      FALSE) {
    if (GetLastError() != ERROR_IO_PENDING) return MailslotWrite::kFailed;
    if (WaitForHandles(std::array{done.get()}, std::max(limitMs, kPendingWriteMs)) !=
        WaitStatus::kSignalled) {
      return CancelAndFinish(file, operation) ? MailslotWrite::kWritten : MailslotWrite::kFull;
    }
  }
  DWORD written = 0;
  if (GetOverlappedResult(file, &operation, &written, FALSE) == FALSE) {
    return MailslotWrite::kFailed;
  }
  return written == message.size() ? MailslotWrite::kWritten : MailslotWrite::kFailed;
}

}  // namespace

struct Mailslot::State {
  FileHandle handle;
  KernelHandle ownReadEvent;
  std::optional<std::vector<std::byte>> pending;  // read, but not yet asked for

  [[nodiscard]] std::optional<Waiting> Look() const {
    DWORD next = MAILSLOT_NO_MESSAGE;
    DWORD count = 0;
    if (GetMailslotInfo(handle.get(), nullptr, &next, &count, nullptr) == FALSE) {
      return std::nullopt;
    }
    if (next == MAILSLOT_NO_MESSAGE) return Waiting{};
    return Waiting{next, std::max<std::uint32_t>(count, 1)};
  }

  // One overlapped read with `event`, waited for to its end.
  [[nodiscard]] std::optional<std::size_t> ReadNext(std::span<std::byte> buffer,
                                                    HANDLE event) const {
    OVERLAPPED operation{};
    operation.hEvent = event;
    // A read of no bytes would leave an empty message where it is.
    std::byte spare{};
    const std::span<std::byte> target = buffer.empty() ? std::span(&spare, 1) : buffer;
    DWORD received = 0;
    if (ReadFile(handle.get(), target.data(), DwordSize(target.size()), nullptr, &operation) !=
            FALSE ||
        GetLastError() == ERROR_IO_PENDING) {
      if (GetOverlappedResult(handle.get(), &operation, &received, TRUE) != FALSE) return received;
    }
    return std::nullopt;
  }
};

Mailslot::Mailslot() = default;
Mailslot::~Mailslot() = default;
Mailslot::Mailslot(Mailslot&& other) noexcept = default;
Mailslot& Mailslot::operator=(Mailslot&& other) noexcept = default;

Mailslot Mailslot::Create(std::u16string_view name, std::uint32_t readTimeoutMs,
                          const SecurityAttributes* security) {
  Mailslot mailslot;
  if (FaultHits(Fault::kMailslotCreate) || !IsMailslotName(name)) return mailslot;
  EveryoneAccess everyone(FILE_GENERIC_WRITE);
  SECURITY_ATTRIBUTES native{};
  if (security != nullptr) {
    native.nLength = security->length;
    native.lpSecurityDescriptor = NativeDescriptor(security->securityDescriptor);
    native.bInheritHandle = security->inheritHandle;
  }
  auto state = std::make_unique<State>();
  state->ownReadEvent = KernelHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  state->handle =
      FileHandle(CreateMailslotW(ToNative(std::u16string(name)), 0, readTimeoutMs,
                                 security != nullptr ? &native : everyone.attributes()));
  if (state->handle.valid() && state->ownReadEvent.valid()) mailslot.state_ = std::move(state);
  return mailslot;
}

// Windows does not tell who writes.
bool Mailslot::AcceptOnlyFromOwnerOf(std::u16string_view name) {
  return valid() && MailslotExists(name);
}

std::optional<Mailslot::Waiting> Mailslot::Query() {
  if (state_ == nullptr) return std::nullopt;
  if (state_->pending) return Waiting{state_->pending->size(), 1};
  const auto waiting = state_->Look();
  if (!waiting || waiting->nextSize != kUncertainSize) return waiting;
  try {
    std::vector<std::byte> message(kLargestUncertain);
    const auto size = state_->ReadNext(message, state_->ownReadEvent.get());
    if (!size) return Waiting{};
    message.resize(*size);
    message.shrink_to_fit();
    state_->pending = std::move(message);
    return Waiting{*size, waiting->count};
  } catch (const std::bad_alloc&) {
    return waiting;
  }
}

std::optional<std::size_t> Mailslot::Read(std::span<std::byte> buffer, const Event& readEvent) {
  if (state_ == nullptr) return std::nullopt;
  if (state_->pending) {
    const std::vector<std::byte> message = *std::exchange(state_->pending, std::nullopt);
    if (message.size() > buffer.size()) return std::nullopt;
    std::ranges::copy(message, buffer.begin());
    return message.size();
  }
  const HANDLE event = NativeHandle(readEvent);
  if (event == nullptr) return std::nullopt;
  const auto waiting = state_->Look();
  if (waiting && waiting->nextSize.value_or(0) > buffer.size()) {
    // The system would keep the message, and every one behind it, for ever.
    try {
      const std::size_t size = *waiting->nextSize;
      const auto lost = std::make_unique_for_overwrite<std::byte[]>(size);
      (void)state_->ReadNext({lost.get(), size}, event);
    } catch (const std::bad_alloc&) {
      SleepMs(kLookMs);  // later there may be the memory
    }
    return std::nullopt;
  }
  const auto size = state_->ReadNext(buffer, event);
  // Wine takes an empty message out, but reports that there was none.
  return !size && waiting && waiting->nextSize == 0 ? 0 : size;
}

WaitStatus Mailslot::WaitForMessage(const Waitable& wake, WaitLimit limit) {
  if (state_ == nullptr) return WaitStatus::kFailed;
  const std::uint64_t start = MonotonicMs();
  const std::array<const Waitable*, 1> wakes = {&wake};
  for (std::uint32_t step = kFirstLookMs;; step = std::min(step * 2, kLookMs)) {
    if (state_->pending) return WaitStatus::kSignalled;
    const auto waiting = state_->Look();
    if (!waiting) return WaitStatus::kFailed;
    if (waiting->nextSize) return WaitStatus::kSignalled;
    std::uint32_t pause = step;
    if (limit) {
      const std::uint64_t passed = MonotonicMs() - start;
      if (passed >= *limit) return WaitStatus::kTimeout;
      pause = static_cast<std::uint32_t>(std::min<std::uint64_t>(pause, *limit - passed));
    }
    const WaitStatus status = WaitForAny(wakes, pause);
    if (status == WaitStatus::kSignalled) return WaitStatus::kTimeout;
    if (status == WaitStatus::kFailed) return WaitStatus::kFailed;
  }
}

MailslotWrite WriteMailslot(std::u16string_view name, std::span<const std::byte> message,
                            std::uint32_t limitMs) {
  if (!IsMailslotName(name) || message.size() > std::numeric_limits<DWORD>::max()) {
    return MailslotWrite::kFailed;
  }
  try {
    const std::u16string terminated(name);
    const std::uint64_t start = MonotonicMs();
    const auto passed = [start] { return MonotonicMs() - start; };
    for (;;) {
      const FileHandle file = OpenForWriting(terminated);
      if (file.valid()) {
        const auto left =
            static_cast<std::uint32_t>(limitMs - std::min<std::uint64_t>(passed(), limitMs));
        return Deliver(file.get(), message, left);
      }
      const DWORD error = GetLastError();
      if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) {
        return MailslotWrite::kAbsent;
      }
      if (error != ERROR_SHARING_VIOLATION) return MailslotWrite::kFailed;
      // A mailslot has one writer at a time.
      if (passed() >= limitMs) return MailslotWrite::kFull;
      SleepMs(1);
    }
  } catch (const std::bad_alloc&) {
    return MailslotWrite::kFailed;
  }
}

bool MailslotExists(std::u16string_view name) {
  if (!IsMailslotName(name)) return false;
  try {
    const std::u16string terminated(name);
    const FileHandle file = OpenForWriting(terminated);
    if (file.valid()) return true;
    const DWORD error = GetLastError();
    return error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace talvorn::platform
