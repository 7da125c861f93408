#include "platform/mailslot.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <string>
#include <system_error>

#include "platform/clock.h"
#include "platform/fault_injection.h"
#include "platform/mailslot_name.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/forms/memory_file.h"
#include "platform/posix/forms/message_queue.h"
#include "platform/posix/forms/runtime_directory.h"
#include "platform/posix/forms/unread_files.h"
#include "platform/posix/obstacle.h"
#include "platform/posix/unix_address.h"
#include "platform/posix/wait.h"
#include "platform/text_encoding.h"
#include "platform/thread.h"

namespace talvorn::platform {
namespace {

// A larger message travels as an empty datagram with a memory file.
constexpr std::size_t kLargestDatagram = 128 << 10;
// Messages passed over before Query gives its caller a turn.
constexpr int kDroppedPerQuery = 64;

constexpr int kLockAttempts = 500;
constexpr std::uint32_t kLockPauseMs = 2;

// In lower case, since mailslot names compare without case.
std::string FileNameOf(std::u16string_view name) {
  std::string file = WideToUtf8(name.substr(kMailslotPrefix.size()));
  std::transform(file.begin(), file.end(), file.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return file;
}

// The locator's mailslot stands where only its own account can make one.
RuntimeFolder FolderOf(const std::string& file) {
  static const std::string locators = FileNameOf(kLocatorMailslot);
  return file == locators ? RuntimeFolder::kLocator : RuntimeFolder::kMailslot;
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

// A name that nobody can have taken before.
std::string UnlikelyName() {
  std::uint64_t number = 0;
  return getrandom(&number, sizeof(number), GRND_NONBLOCK) == sizeof(number)
             ? ".new-" + std::to_string(number)
             : ".new-" + std::to_string(getpid()) + '-' + std::to_string(MonotonicMs());
}

// None, and the reason in errno, when the system refuses.
NewSocket BindNewSocket(int directory, mode_t mode, MessageQueue::Files files) {
  constexpr int kAttempts = 16;
  NewSocket made{MessageQueue::MakeSocket(files), {}};
  if (!made.socket.valid()) return {};
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    made.name = UnlikelyName();
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

// Writes `message` to the mailslot `receiver`, to which `socket` is connected.
MailslotWrite Deliver(const MailslotFile& receiver, Descriptor socket,
                      std::span<const std::byte> message, std::uint32_t limitMs) {
  const std::uint64_t deadline = limitMs > 0 ? MonotonicMs() + limitMs : 0;
  bool direct = message.size() <= kLargestDatagram;
  UnreadFiles& unread = UnreadFiles::Own();
  std::shared_ptr<const Descriptor> memory;
  for (bool waited = false;; waited = true) {
    Sent sent = direct ? SendBytes(socket.get(), message) : Sent::kTooLarge;
    if (sent == Sent::kTooLarge) {
      direct = false;
      if (message.size() > kLargestMessage) return MailslotWrite::kFailed;
      if (!unread.HasRoomFor(receiver)) {
        sent = Sent::kNoRoom;
      } else {
        if (!memory) memory = unread.FileWith(message);
        sent = memory ? SendDescriptor(socket.get(), memory->get()) : Sent::kFailed;
        if (sent == Sent::kDone) unread.Add(receiver, std::move(socket));
      }
    }
    if (sent == Sent::kDone) return MailslotWrite::kWritten;
    if (sent == Sent::kAbsent) return MailslotWrite::kAbsent;
    if (sent != Sent::kNoRoom) return MailslotWrite::kFailed;

    const std::uint64_t now = limitMs > 0 ? MonotonicMs() : 0;
    if (now >= deadline) return MailslotWrite::kFull;
    // Others wait for the same room and may be faster.
    if (waited) SleepMs(1);
    (void)WaitForDescriptor(socket.get(), POLLOUT, static_cast<std::uint32_t>(deadline - now));
  }
}

void RemoveStaleMailslotsIn(RuntimeFolder folder) {
  const Descriptor directory = OpenRuntimeFolder(folder, false);
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
}

// Says why the mailslot could not be made, where somebody has to do something about it.
void TellWhyNotMade(RuntimeFolder folder, const std::string& file, int error) {
  const std::string path = RuntimeFolderPath(folder) + '/' + file;
  const std::string beginning = "cannot create the mailslot " + file + ": ";
  if (error == EEXIST || error == EPERM) {
    // A leftover that only others may remove.
    ReportObstacle(beginning + path + " is in the way. Remove it as root, and start again.");
  } else if (folder == RuntimeFolder::kMailslot) {
    // The client says so itself, or takes another name.
  } else if (error == EADDRINUSE) {
    ReportObstacle(beginning + "another process has " + path +
                   ". Clients are served here once it has ended.");
  } else {
    ReportObstacle(beginning + std::generic_category().message(error) + " (" + path +
                   "). It is tried again every few seconds.");
  }
}

// The account whose mailslot has this name; none when there is none.
std::optional<uid_t> OwnerOf(std::u16string_view name) {
  const std::string file = FileNameOf(name);
  const Descriptor directory = OpenRuntimeFolder(FolderOf(file), false);
  struct stat status {};
  if (!directory.valid() ||
      fstatat(directory.get(), file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return std::nullopt;
  }
  return status.st_uid;
}

// Without a wish everybody may write, since the locator that answers may be another's.
// Where it is our own, nobody else can fill the mailslot.
mode_t ModeFor(const SecurityAttributes* security) {
  constexpr mode_t kOwnAccount = 0600;
  constexpr mode_t kEveryone = 0666;
  const bool own = security == nullptr && OwnerOf(kLocatorMailslot) == geteuid();
  return own ? kOwnAccount : kEveryone;
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
  State(Descriptor folder, Descriptor socketFile, Descriptor reader, MessageQueue::Files files,
        std::string fileName, std::uint32_t timeout)
      : directory(std::move(folder)),
        file(std::move(socketFile)),
        queue(std::move(reader), files),
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
    for (int dropped = 0; dropped < kDroppedPerQuery; ++dropped) {
      Message message;
      switch (queue.Take(message)) {
        case MessageQueue::Taken::kMessage:
          pending = std::move(message);
          return true;
        case MessageQueue::Taken::kDropped:
          break;
        case MessageQueue::Taken::kNothing:
          return true;
        case MessageQueue::Taken::kFailed:
          return false;
      }
    }
    return true;
  }

  Descriptor directory;
  Descriptor file;  // of the socket, to know it again
  MessageQueue queue;
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
  const RuntimeFolder folder = FolderOf(file);
  const MessageQueue::Files files = folder == RuntimeFolder::kLocator
                                        ? MessageQueue::Files::kRefused
                                        : MessageQueue::Files::kTaken;
  Descriptor directory = OpenRuntimeFolder(folder, true);
  NewSocket made =
      directory.valid() ? BindNewSocket(directory.get(), ModeFor(security), files) : NewSocket{};
  int error = errno;
  if (made.socket.valid()) {
    Descriptor own = OpenPath(directory.get(), made.name);
    error = errno;
    if (own.valid()) {
      const FolderLock lock(directory.get());
      error = GiveName(directory.get(), made.name, file);
    }
    if (own.valid() && error == 0) {
      // Without memory for this the file stays behind, as one that can be replaced.
      mailslot.state_ = std::make_unique<State>(std::move(directory), std::move(own),
                                                std::move(made.socket), files, file, readTimeoutMs);
      return mailslot;
    }
    (void)unlinkat(directory.get(), made.name.c_str(), 0);
  }
  TellWhyNotMade(folder, file, error);
  return mailslot;
}

bool Mailslot::AcceptOnlyFromOwnerOf(std::u16string_view name) {
  if (state_ == nullptr || !IsMailslotName(name)) return false;
  const auto owner = OwnerOf(name);
  if (owner) state_->queue.AcceptOnlyFrom(*owner);
  return owner.has_value();
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
    (void)WaitForDescriptor(state_->queue.descriptor(), POLLIN, state_->readTimeoutMs);
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
  const DescriptorWaitable queue(state_->queue.descriptor());
  const std::array<const Waitable*, 2> either = {&queue, &wake};
  const WaitStatus status = WaitForAny(either, limit);
  return status == WaitStatus::kSignalled ? WaitForDescriptor(state_->queue.descriptor(), POLLIN, 0)
                                          : status;
}

MailslotWrite WriteMailslot(std::u16string_view name, std::span<const std::byte> message,
                            std::uint32_t limitMs) {
  if (!IsMailslotName(name)) return MailslotWrite::kFailed;
  try {
    const std::string fileName = FileNameOf(name);
    const Descriptor directory = OpenRuntimeFolder(FolderOf(fileName), false);
    if (!directory.valid()) return MailslotWrite::kAbsent;
    const Descriptor file = OpenPath(directory.get(), fileName);
    if (!file.valid()) return errno == ENOENT ? MailslotWrite::kAbsent : MailslotWrite::kFailed;
    // A second link could lead the message to a socket elsewhere in the system.
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || !S_ISSOCK(status.st_mode) || status.st_nlink > 1) {
      return MailslotWrite::kFailed;
    }
    Descriptor socket = MakeSocket();
    if (!socket.valid()) return MailslotWrite::kFailed;
    const int error = ConnectTo(socket, file);
    if (error == 0) {
      return Deliver({status.st_dev, status.st_ino, status.st_uid}, std::move(socket), message,
                     limitMs);
    }
    return error == ECONNREFUSED ? MailslotWrite::kAbsent : MailslotWrite::kFailed;
  } catch (const std::bad_alloc&) {
    return MailslotWrite::kFailed;
  }
}

bool MailslotExists(std::u16string_view name) {
  if (!IsMailslotName(name)) return false;
  try {
    const std::string file = FileNameOf(name);
    const Descriptor directory = OpenRuntimeFolder(FolderOf(file), false);
    return directory.valid() && StateOfName(directory.get(), file) == NameState::kTaken;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void RemoveStaleMailslots() {
  try {
    RemoveStaleMailslotsIn(RuntimeFolder::kMailslot);
    RemoveStaleMailslotsIn(RuntimeFolder::kLocator);
  } catch (const std::bad_alloc&) {
    // They harm nobody.
  }
}

}  // namespace talvorn::platform
