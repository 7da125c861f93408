// A mailslot cannot be waited on, so a waiting reader polls. Under Wine one holds a limited number
// of bytes and a write waits for room; writes are therefore overlapped, and cancelled at the time
// limit.
#include "platform/mailslot.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/fault_injection.h"
#include "platform/thread.h"
#include "platform/win32/everyone_access.h"
#include "platform/win32/handle.h"
#include "platform/win32/wait.h"
#include "platform/win32/wide_text.h"

namespace talvorn::platform {
namespace {

// For a read without a message, which never happens.
constexpr DWORD kReadTimeoutMs = 100;

// How often a waiting reader polls: fast at first, for the answer to a request.
constexpr std::uint32_t kFirstLookMs = 1;
constexpr std::uint32_t kLookMs = 10;

// A write that has begun gets at least this long.
constexpr std::uint32_t kPendingWriteMs = 20;

// Wine reports this size for every larger message too: read it into a large buffer.
constexpr std::size_t kUncertainSize = 65'536;
constexpr std::size_t kLargestUncertain = 4 << 20;

// A size as Windows takes it.
DWORD DwordSize(std::size_t size) {
  return static_cast<DWORD>(std::min<std::size_t>(size, MAXDWORD));
}

FileHandle OpenForWriting(const std::u16string& name) {
  // Anonymous: the owner of the mailslot must not impersonate the writer.
  return FileHandle(CreateFileW(
      ToNative(name), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS,
      nullptr));
}

// Cancels an overlapped operation and waits until its memory is free. True when it was
// done all the same.
bool CancelAndFinish(HANDLE file, OVERLAPPED& operation) {
  (void)CancelIoEx(file, &operation);
  DWORD transferred = 0;
  return GetOverlappedResult(file, &operation, &transferred, TRUE) != FALSE;
}

// Writes the whole message in one write, within the limit.
MailslotWrite Deliver(HANDLE file, std::span<const std::byte> message, std::uint32_t limitMs) {
  const KernelHandle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!done.valid()) return MailslotWrite::kFailed;
  OVERLAPPED operation{};
  operation.hEvent = done.get();
  if (WriteFile(file, message.data(), DwordSize(message.size()), nullptr, &operation) == FALSE) {
    if (GetLastError() != ERROR_IO_PENDING) return MailslotWrite::kFailed;
    if (WaitList(done.get()).Wait(std::max(limitMs, kPendingWriteMs)) != WaitStatus::kSignalled) {
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
  KernelHandle readEvent;

  // The size of the next message, or MAILSLOT_NO_MESSAGE; none when the query fails.
  [[nodiscard]] std::optional<DWORD> NextSize() const {
    DWORD next = MAILSLOT_NO_MESSAGE;
    if (GetMailslotInfo(handle.get(), nullptr, &next, nullptr, nullptr) == FALSE)
      return std::nullopt;
    return next;
  }

  // One overlapped read, waited for to its end; false when it fails.
  [[nodiscard]] bool ReadNext(std::span<std::byte> buffer, DWORD& received) const {
    OVERLAPPED operation{};
    operation.hEvent = readEvent.get();
    return (ReadFile(handle.get(), buffer.data(), DwordSize(buffer.size()), nullptr, &operation) !=
                FALSE ||
            GetLastError() == ERROR_IO_PENDING) &&
           GetOverlappedResult(handle.get(), &operation, &received, TRUE) != FALSE;
  }
};

Mailslot Mailslot::Create(std::u16string_view name, const SecurityAttributes* security) {
  if (FaultHits(Fault::kMailslotCreate) || !IsMailslotName(name)) return {};
  EveryoneAccess everyone(FILE_GENERIC_WRITE);
  SECURITY_ATTRIBUTES native{};
  if (security != nullptr) {
    native.nLength = security->length;
    native.lpSecurityDescriptor = const_cast<SecurityDescriptor*>(security->securityDescriptor);
    native.bInheritHandle = security->inheritHandle;
  }
  auto state = std::make_shared<State>();
  state->readEvent = KernelHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  if (!state->readEvent.valid()) return {};
  state->handle =
      FileHandle(CreateMailslotW(ToNative(std::u16string(name)), 0, kReadTimeoutMs,
                                 security != nullptr ? &native : everyone.attributes()));
  return state->handle.valid() ? Mailslot(std::move(state)) : Mailslot();
}

// Windows does not tell who writes.
bool Mailslot::AcceptOnlyFromOwnerOf(std::u16string_view name) {
  return valid() && MailslotExists(name);
}

Mailslot::Taken Mailslot::Take(Message& message, std::size_t largest) {
  if (!valid()) return Taken::kFailed;
  const auto size = state_->NextSize();
  if (!size) return Taken::kFailed;
  if (*size == MAILSLOT_NO_MESSAGE) return Taken::kNone;
  // A buffer of 0 bytes, or one too small, would leave the message in place and block the
  // ones behind it.
  const auto bytes = std::make_shared<std::vector<std::byte>>(
      *size == kUncertainSize ? kLargestUncertain : std::max<DWORD>(*size, 1));
  DWORD received = 0;
  // Wine removes an empty message but reports a failure.
  const bool taken = state_->ReadNext(*bytes, received) || *size == 0;
  if (!taken || received > largest) return Taken::kLost;
  message = Message(bytes, std::span(*bytes).first(received));
  return Taken::kMessage;
}

WaitStatus Mailslot::WaitForMessage(const Waitable& wake, WaitLimit limit) {
  if (state_ == nullptr) return WaitStatus::kFailed;
  const std::uint64_t start = MonotonicMs();
  const std::array<const Waitable*, 1> wakes = {&wake};
  for (std::uint32_t step = kFirstLookMs;; step = std::min(step * 2, kLookMs)) {
    const auto size = state_->NextSize();
    if (!size) return WaitStatus::kFailed;
    if (*size != MAILSLOT_NO_MESSAGE) return WaitStatus::kSignalled;
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

MailslotWrite WriteMailslot(std::u16string_view name, MessageParts message, std::uint32_t limitMs) {
  if (!IsMailslotName(name)) return MailslotWrite::kFailed;
  std::vector<std::byte> whole;
  for (const auto part : message) whole.insert(whole.end(), part.begin(), part.end());
  const std::u16string terminated(name);
  const std::uint64_t start = MonotonicMs();
  const auto passed = [start] { return MonotonicMs() - start; };
  for (;;) {
    const FileHandle file = OpenForWriting(terminated);
    if (file.valid()) {
      const auto left =
          static_cast<std::uint32_t>(limitMs - std::min<std::uint64_t>(passed(), limitMs));
      return Deliver(file.get(), whole, left);
    }
    const DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND)
      return MailslotWrite::kAbsent;
    if (error != ERROR_SHARING_VIOLATION) return MailslotWrite::kFailed;
    // A mailslot has one writer at a time.
    if (passed() >= limitMs) return MailslotWrite::kFull;
    SleepMs(1);
  }
}

bool MailslotExists(std::u16string_view name) {
  if (!IsMailslotName(name)) return false;
  const FileHandle file = OpenForWriting(std::u16string(name));
  if (file.valid()) return true;
  const DWORD error = GetLastError();
  return error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED;
}

}  // namespace talvorn::platform
