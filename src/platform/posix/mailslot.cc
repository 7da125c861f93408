#include "platform/mailslot.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/fault_injection.h"
#include "platform/mailslot_name.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/memory_file.h"
#include "platform/posix/obstacle.h"
#include "platform/posix/runtime_directory.h"
#include "platform/posix/security_mode.h"
#include "platform/posix/unix_address.h"
#include "platform/posix/wait.h"
#include "platform/text_encoding.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

// A larger message travels as an empty datagram with a memory file.
constexpr std::size_t kLargestDatagram = 128 << 10;
// A memory file costs its sender next to nothing, but us its size; what is larger
// than this is no message.
constexpr std::size_t kLargestMessage = 256 << 20;

// Damaged messages passed over before Query gives its caller a turn.
constexpr int kDamagedPerQuery = 64;

// As many descriptors as one message can carry.
constexpr std::size_t kMostDescriptors = 253;

constexpr int kLockAttempts = 500;
constexpr std::uint32_t kLockPauseMs = 2;

// In lower case, since mailslot names compare without case.
std::string FileNameOf(std::u16string_view name) {
  std::string file = WideToUtf8(name.substr(kMailslotPrefix.size()));
  std::transform(file.begin(), file.end(), file.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return file;
}

Descriptor MakeSocket() {
  return Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

Descriptor OpenPath(int directory, const std::string& name) {
  return Descriptor(openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

// Connects to the socket file `file`; 0 or the error.
int ConnectTo(const Descriptor& socket, const Descriptor& file) {
  const UnixAddress address = UnixAddress::OfDescriptor(file.get());
  return connect(socket.get(), address.get(), address.size()) == 0 ? 0 : errno;
}

enum class NameState { kFree, kStale, kTaken, kForeign };

// What stands under a mailslot's name: nothing, the socket of a process that has
// gone, one of a living process, or what is no socket at all.
NameState StateOfName(int directory, const std::string& name) {
  const Descriptor file = OpenPath(directory, name);
  if (!file.valid()) return errno == ENOENT ? NameState::kFree : NameState::kForeign;
  struct stat status {};
  if (fstat(file.get(), &status) != 0 || !S_ISSOCK(status.st_mode)) return NameState::kForeign;
  const Descriptor probe = MakeSocket();
  return ConnectTo(probe, file) == ECONNREFUSED ? NameState::kStale : NameState::kTaken;
}

// Holds the folder's lock, so that two processes do not both replace a stale socket.
// Anybody may hold that lock for as long as they like; so does not having it in time
// stop nobody.
class FolderLock {
 public:
  explicit FolderLock(int directory) : directory_(directory) {
    for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
      if (flock(directory_, LOCK_EX | LOCK_NB) == 0) return;
      SleepMs(kLockPauseMs);
    }
  }
  ~FolderLock() { (void)flock(directory_, LOCK_UN); }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  int directory_;
};

// A socket under a name that nobody writes to yet. Its file has `mode` when it gets
// its own name.
struct NewSocket {
  Descriptor socket;
  std::string name;
};

NewSocket BindNewSocket(int directory, mode_t mode) {
  constexpr int kAttempts = 16;
  static std::atomic<unsigned int> counter{0};
  NewSocket made{MakeSocket(), {}};
  if (!made.socket.valid()) return {};
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    made.name = ".new-" + std::to_string(getpid()) + '-' + std::to_string(++counter);
    const UnixAddress address("/proc/self/fd/" + std::to_string(directory) + '/' + made.name);
    if (bind(made.socket.get(), address.get(), address.size()) == 0) {
      if (chmod(address.path(), mode) == 0) return made;
      (void)unlinkat(directory, made.name.c_str(), 0);
      break;
    }
    if (errno != EADDRINUSE) break;
  }
  return {};
}

// Gives the socket file its name; 0, or the error: EADDRINUSE when a living process
// has the name.
int GiveName(int directory, const std::string& from, const std::string& to) {
  constexpr int kAttempts = 8;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const NameState state = StateOfName(directory, to);
    if (state == NameState::kTaken) return EADDRINUSE;
    if (state == NameState::kForeign) return EEXIST;
    const unsigned int flags = state == NameState::kFree ? RENAME_NOREPLACE : 0;
    if (renameat2(directory, from.c_str(), directory, to.c_str(), flags) == 0) return 0;
    // Not every file system can do that in one step.
    if (errno == EINVAL && renameat(directory, from.c_str(), directory, to.c_str()) == 0) return 0;
    if (errno != EEXIST) return errno;
  }
  return EADDRINUSE;
}

// One message of the queue, taken out of it.
struct Message {
  std::vector<std::byte> bytes;
  Descriptor memory;  // holds the message instead, where there is one
  std::size_t size = 0;
};

// Takes the descriptors of a received message: keeps the only one, closes several.
Descriptor TakeDescriptors(msghdr& header) {
  Descriptor only;
  std::size_t count = 0;
  for (cmsghdr* control = CMSG_FIRSTHDR(&header); control != nullptr;
       control = CMSG_NXTHDR(&header, control)) {
    if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t bytes = control->cmsg_len - CMSG_LEN(0);
    for (std::size_t offset = 0; offset + sizeof(int) <= bytes; offset += sizeof(int)) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(control) + offset, sizeof(fd));
      only = Descriptor(fd);
      ++count;
    }
  }
  if (count != 1) only.Close();
  return only;
}

enum class Taken { kMessage, kDamaged, kNothing, kFailed };

Taken TakeMessage(int socket, Message& message) {
  std::byte none{};
  const ssize_t waiting = recv(socket, &none, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
  if (waiting < 0) return errno == EBADF || errno == ENOTSOCK ? Taken::kFailed : Taken::kNothing;

  message.bytes.resize(static_cast<std::size_t>(waiting));
  alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(kMostDescriptors * sizeof(int))> control;
  iovec data{message.bytes.data(), message.bytes.size()};
  msghdr header{};
  header.msg_iov = &data;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t received = recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (received < 0) return Taken::kNothing;
  const bool carries = header.msg_controllen > 0;
  message.memory = TakeDescriptors(header);
  message.size = static_cast<std::size_t>(received);
  if ((header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) return Taken::kDamaged;
  if (!carries) return Taken::kMessage;

  const auto size = message.memory.valid() ? SealedSize(message.memory.get()) : std::nullopt;
  if (received != 0 || !size || *size > kLargestMessage) return Taken::kDamaged;
  message.size = *size;
  return Taken::kMessage;
}

enum class Sent { kDone, kNoRoom, kTooLarge, kAbsent, kFailed };

Sent SentOf(ssize_t result) {
  if (result >= 0) return Sent::kDone;
  switch (errno) {
    case EAGAIN:
    case ETOOMANYREFS:  // too many memory files of ours are on their way
      return Sent::kNoRoom;
    case EMSGSIZE:
    case ENOBUFS:
      return Sent::kTooLarge;
    case ECONNREFUSED:
    case ECONNRESET:
    case ENOTCONN:
    case EPIPE:
      return Sent::kAbsent;
    default:
      return Sent::kFailed;
  }
}

Sent SendBytes(int socket, std::span<const std::byte> message) {
  return SentOf(send(socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}

Sent SendDescriptor(int socket, int fd) {
  alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(sizeof(int))> control{};
  iovec none{};
  msghdr header{};
  header.msg_iov = &none;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  cmsghdr* const rights = CMSG_FIRSTHDR(&header);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(rights), &fd, sizeof(fd));
  return SentOf(sendmsg(socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL));
}

// Writes `message` to a connected socket.
MailslotWrite Deliver(int socket, std::span<const std::byte> message, std::uint32_t limitMs) {
  const std::uint64_t deadline = limitMs > 0 ? MonotonicMs() + limitMs : 0;
  bool direct = message.size() <= kLargestDatagram;
  Descriptor memory;
  for (bool waited = false;; waited = true) {
    Sent sent = direct ? SendBytes(socket, message) : Sent::kTooLarge;
    if (sent == Sent::kTooLarge) {
      direct = false;
      if (!memory.valid() && message.size() <= kLargestMessage) memory = MakeMemoryFile(message);
      sent = memory.valid() ? SendDescriptor(socket, memory.get()) : Sent::kFailed;
    }
    if (sent == Sent::kDone) return MailslotWrite::kWritten;
    if (sent == Sent::kAbsent) return MailslotWrite::kAbsent;
    if (sent != Sent::kNoRoom) return MailslotWrite::kFailed;

    const std::uint64_t now = limitMs > 0 ? MonotonicMs() : 0;
    if (now >= deadline) return MailslotWrite::kFull;
    // Others wait for the same room and may be faster.
    if (waited) SleepMs(1);
    (void)WaitForDescriptor(socket, POLLOUT, static_cast<std::uint32_t>(deadline - now));
  }
}

// A descriptor as something to wait on.
class DescriptorWaitable final : public Waitable {
 public:
  explicit DescriptorWaitable(int fd) : fd_(fd) {}
  [[nodiscard]] std::intptr_t waitHandle() const override { return fd_; }

 private:
  int fd_;
};

}  // namespace

struct Mailslot::State {
  State(Descriptor folder, Descriptor socketFile, Descriptor reader, std::string fileName,
        std::uint32_t timeout)
      : directory(std::move(folder)),
        file(std::move(socketFile)),
        socket(std::move(reader)),
        name(std::move(fileName)),
        readTimeoutMs(timeout) {}
  ~State() {
    if (IsStillAt(directory.get(), name, file.get())) {
      (void)unlinkat(directory.get(), name.c_str(), 0);
    }
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  // Takes the next message out of the queue unless one is out already. False when
  // the socket fails.
  bool TakeNext() {
    if (pending) return true;
    for (int damaged = 0; damaged < kDamagedPerQuery; ++damaged) {
      Message message;
      switch (TakeMessage(socket.get(), message)) {
        case Taken::kMessage:
          pending = std::move(message);
          return true;
        case Taken::kDamaged:
          break;
        case Taken::kNothing:
          return true;
        case Taken::kFailed:
          return false;
      }
    }
    return true;
  }

  Descriptor directory;
  Descriptor file;  // of the socket, to know it again
  Descriptor socket;
  std::string name;
  std::uint32_t readTimeoutMs;
  std::optional<Message> pending;
};

Mailslot::Mailslot() = default;
Mailslot::~Mailslot() = default;
Mailslot::Mailslot(Mailslot&& other) noexcept = default;
Mailslot& Mailslot::operator=(Mailslot&& other) noexcept = default;

Mailslot Mailslot::Create(std::u16string_view name, std::uint32_t readTimeoutMs,
                          const SecurityAttributes* security) {
  Mailslot mailslot;
  if (FaultHits(Fault::kMailslotCreate) || !IsMailslotName(name)) return mailslot;
  const std::string file = FileNameOf(name);
  Descriptor directory = OpenRuntimeFolder(RuntimeFolder::kMailslot, true);
  if (!directory.valid()) return mailslot;
  NewSocket made = BindNewSocket(directory.get(), FileModeFor(security));
  if (!made.socket.valid()) return mailslot;
  Descriptor own = OpenPath(directory.get(), made.name);
  int error = EADDRINUSE;
  if (own.valid()) {
    const FolderLock lock(directory.get());
    error = GiveName(directory.get(), made.name, file);
  }
  if (error != 0) {
    (void)unlinkat(directory.get(), made.name.c_str(), 0);
    // A living process that has the name is no obstacle; a leftover that only
    // others may remove is one.
    if (error != EADDRINUSE) {
      ReportObstacle("cannot create the mailslot " + file + ": " +
                     RuntimeFolderPath(RuntimeFolder::kMailslot) + '/' + file +
                     " is in the way. Remove it as root, and start again.");
    }
    return mailslot;
  }
  // Without memory for this the file stays behind, as one that can be replaced.
  mailslot.state_ = std::make_unique<State>(std::move(directory), std::move(own),
                                            std::move(made.socket), file, readTimeoutMs);
  return mailslot;
}

std::optional<Mailslot::Waiting> Mailslot::Query() {
  if (state_ == nullptr) return std::nullopt;
  try {
    if (!state_->TakeNext()) return std::nullopt;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
  if (!state_->pending) return Waiting{};
  return Waiting{state_->pending->size, 1};
}

std::optional<std::size_t> Mailslot::Read(std::span<std::byte> buffer, const Event& /*readEvent*/) {
  auto waiting = Query();
  if (waiting && !waiting->nextSize && state_->readTimeoutMs > 0) {
    (void)WaitForDescriptor(state_->socket.get(), POLLIN, state_->readTimeoutMs);
    waiting = Query();
  }
  if (!waiting || !waiting->nextSize) return std::nullopt;

  const Message message = std::move(*state_->pending);
  state_->pending.reset();
  if (message.size > buffer.size()) return std::nullopt;
  if (!message.memory.valid()) {
    std::copy(message.bytes.begin(), message.bytes.end(), buffer.begin());
  } else if (!ReadMemoryFile(message.memory.get(), buffer.first(message.size))) {
    return std::nullopt;
  }
  return message.size;
}

WaitStatus Mailslot::WaitForMessage(const Waitable& wake, WaitLimit limit) {
  if (state_ == nullptr) return WaitStatus::kFailed;
  if (state_->pending) return WaitStatus::kSignalled;
  const DescriptorWaitable queue(state_->socket.get());
  const std::array<const Waitable*, 2> either = {&queue, &wake};
  const WaitStatus status = WaitForAny(either, limit);
  return status == WaitStatus::kSignalled ? WaitForDescriptor(state_->socket.get(), POLLIN, 0)
                                          : status;
}

MailslotWrite WriteMailslot(std::u16string_view name, std::span<const std::byte> message,
                            std::uint32_t limitMs) {
  if (!IsMailslotName(name)) return MailslotWrite::kFailed;
  try {
    const Descriptor directory = OpenRuntimeFolder(RuntimeFolder::kMailslot, false);
    if (!directory.valid()) return MailslotWrite::kAbsent;
    const std::string fileName = FileNameOf(name);
    const Descriptor file = OpenPath(directory.get(), fileName);
    if (!file.valid()) return errno == ENOENT ? MailslotWrite::kAbsent : MailslotWrite::kFailed;
    // A second link could lead the message to a socket elsewhere in the system.
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || !S_ISSOCK(status.st_mode) || status.st_nlink > 1) {
      return MailslotWrite::kFailed;
    }
    const Descriptor socket = MakeSocket();
    if (!socket.valid()) return MailslotWrite::kFailed;
    const int error = ConnectTo(socket, file);
    if (error == 0) return Deliver(socket.get(), message, limitMs);
    return error == ECONNREFUSED ? MailslotWrite::kAbsent : MailslotWrite::kFailed;
  } catch (const std::bad_alloc&) {
    return MailslotWrite::kFailed;
  }
}

bool MailslotExists(std::u16string_view name) {
  if (!IsMailslotName(name)) return false;
  try {
    const Descriptor directory = OpenRuntimeFolder(RuntimeFolder::kMailslot, false);
    return directory.valid() && StateOfName(directory.get(), FileNameOf(name)) == NameState::kTaken;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void RemoveStaleMailslots() {
  try {
    const Descriptor directory = OpenRuntimeFolder(RuntimeFolder::kMailslot, false);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(
        directory.valid() ? opendir(UnixAddress::OfDescriptor(directory.get()).path()) : nullptr,
        closedir);
    if (entries == nullptr) return;
    const FolderLock lock(directory.get());
    while (const dirent* const entry = readdir(entries.get())) {
      const std::string name = entry->d_name;
      if (StateOfName(directory.get(), name) == NameState::kStale) {
        (void)unlinkat(directory.get(), name.c_str(), 0);
      }
    }
  } catch (const std::bad_alloc&) {
    // They harm nobody.
  }
}

}  // namespace talvorn::platform
