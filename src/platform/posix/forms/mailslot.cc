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
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include "platform/account.h"
#include "platform/ascii_case.h"
#include "platform/clock.h"
#include "platform/fault_injection.h"
#include "platform/obstacle.h"
#include "platform/posix/account_name.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/forms/memory_file.h"
#include "platform/posix/forms/message_queue.h"
#include "platform/posix/forms/runtime_directory.h"
#include "platform/posix/forms/unread_files.h"
#include "platform/posix/io.h"
#include "platform/posix/unix_address.h"
#include "platform/posix/wait.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

// A larger message travels as an empty datagram with a memory file.
constexpr std::size_t kLargestDatagram = 128 << 10;
constexpr std::uint32_t kLockLimitMs = 1'000;

// In lower case, since mailslot names compare without case.
std::string FileNameOf(std::u16string_view name) {
  std::string file = WideToUtf8(name.substr(kMailslotPrefix.size()));
  std::ranges::transform(file, file.begin(), ToAsciiLower<char>);
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
  return ConnectTo(MakeSocket(), file) == ECONNREFUSED ? NameState::kStale : NameState::kTaken;
}

// Keeps two processes from replacing one stale socket. A hostile process may hold the lock; go on
// without it after a second. It ends with the descriptor.
Descriptor LockFolder(int directory) {
  Descriptor lock(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  (void)Within(kLockLimitMs, [&lock] { return flock(lock.get(), LOCK_EX | LOCK_NB) == 0; });
  return lock;
}

// A socket under a name that nobody writes to yet: its file gets its mode before its
// name, which may be longer than an address has room for.
struct NewSocket {
  Descriptor socket;
  std::string name;
};

// None, and the reason in errno, when the system refuses.
NewSocket BindNewSocket(int directory, mode_t mode, MessageQueue::Files files) {
  NewSocket made{MessageQueue::MakeSocket(files), ".new-" + std::to_string(RandomNumber())};
  const UnixAddress address("/proc/self/fd/" + std::to_string(directory) + '/' + made.name);
  if (!made.socket.valid() || bind(made.socket.get(), address.get(), address.size()) != 0)
    return {};
  if (chmod(address.path(), mode) == 0) return made;
  (void)unlinkat(directory, made.name.c_str(), 0);
  return {};
}

// Gives the socket file its name; 0, or the error: EADDRINUSE when a living process
// has the name.
int GiveName(int directory, const std::string& from, const std::string& to) {
  const NameState state = StateOfName(directory, to);
  if (state == NameState::kTaken) return EADDRINUSE;
  if (state == NameState::kForeign) return EEXIST;
  return renameat(directory, from.c_str(), directory, to.c_str()) == 0 ? 0 : errno;
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

// `file` travels along unless it is -1.
Sent Send(int socket, MessageParts message, int file) {
  std::vector<iovec> bytes;
  for (const auto part : message)
    bytes.push_back({const_cast<std::byte*>(part.data()), part.size()});
  alignas(cmsghdr) std::array<std::byte, CMSG_SPACE(sizeof(int))> control{};
  msghdr header{};
  header.msg_iov = bytes.data();
  header.msg_iovlen = bytes.size();
  if (file >= 0) {
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    cmsghdr* const rights = CMSG_FIRSTHDR(&header);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(rights), &file, sizeof(file));
  }
  return SentOf(sendmsg(socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL));
}

// Writes `message` to the mailslot `receiver`, to which `socket` is connected.
MailslotWrite Deliver(const MailslotFile& receiver, Descriptor socket, MessageParts message,
                      std::uint32_t limitMs) {
  const std::size_t size = SizeOf(message);
  const std::uint64_t deadline = limitMs > 0 ? MonotonicMs() + limitMs : 0;
  bool direct = size <= kLargestDatagram;
  UnreadFiles& unread = UnreadFiles::Own();
  std::shared_ptr<const Descriptor> memory;
  for (bool waited = false;; waited = true) {
    Sent sent = direct ? Send(socket.get(), message, -1) : Sent::kTooLarge;
    if (sent == Sent::kTooLarge) {
      direct = false;
      if (size > kLargestMessage) return MailslotWrite::kFailed;
      if (!unread.HasRoomFor(receiver)) {
        sent = Sent::kNoRoom;
      } else {
        if (!memory) memory = unread.FileWith(message);
        sent = memory ? Send(socket.get(), {}, memory->get()) : Sent::kFailed;
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
  const Descriptor lock = LockFolder(directory.get());
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
  return security == nullptr && OwnerOf(kLocatorMailslot) == geteuid() ? kOwnAccount : kEveryone;
}

}  // namespace

struct Mailslot::State {
  ~State() {
    if (IsStillAt(directory.get(), name, file.get())) {
      (void)unlinkat(directory.get(), name.c_str(), 0);
    }
  }

  Descriptor directory;
  Descriptor file;  // of the socket, to know it again
  std::string name;
  MessageQueue queue;
};

Mailslot Mailslot::Create(std::u16string_view name, const SecurityAttributes* security) {
  if (FaultHits(Fault::kMailslotCreate) || !IsMailslotName(name)) return {};
  std::string file = FileNameOf(name);
  const RuntimeFolder folder = FolderOf(file);
  const MessageQueue::Files files = folder == RuntimeFolder::kLocator
                                        ? MessageQueue::Files::kRefused
                                        : MessageQueue::Files::kTaken;
  Descriptor directory = OpenRuntimeFolder(folder, true);
  NewSocket made =
      directory.valid() ? BindNewSocket(directory.get(), ModeFor(security), files) : NewSocket{};
  Descriptor own = made.socket.valid() ? OpenPath(directory.get(), made.name) : Descriptor();
  int error = errno;
  if (own.valid()) {
    const Descriptor lock = LockFolder(directory.get());
    error = GiveName(directory.get(), made.name, file);
    if (error == 0) {
      // Without memory for this the file stays behind, as one that can be replaced.
      return Mailslot(std::shared_ptr<State>(new State{
          std::move(directory), std::move(own), std::move(file), {std::move(made.socket), files}}));
    }
  }
  if (made.socket.valid()) (void)unlinkat(directory.get(), made.name.c_str(), 0);
  TellWhyNotMade(folder, file, error);
  return {};
}

bool Mailslot::AcceptOnlyFromOwnerOf(std::u16string_view name) {
  if (state_ == nullptr || !IsMailslotName(name)) return false;
  const auto owner = OwnerOf(name);
  if (owner) state_->queue.AcceptOnlyFrom(*owner);
  return owner.has_value();
}

std::string MailslotOwnerText(std::u16string_view name) {
  const auto owner = IsMailslotName(name) ? OwnerOf(name) : std::nullopt;
  return owner ? AccountName(*owner) : std::string();
}

Mailslot::Taken Mailslot::Take(Message& message, std::size_t largest) {
  return valid() ? state_->queue.Take(message, largest) : Taken::kFailed;
}

WaitStatus Mailslot::WaitForMessage(const Waitable& wake, WaitLimit limit) {
  if (!valid()) return WaitStatus::kFailed;
  const std::array<const Waitable*, 2> either = {&state_->queue, &wake};
  const WaitStatus status = WaitForAny(either, limit);
  return status == WaitStatus::kSignalled ? WaitForDescriptor(state_->queue.descriptor(), POLLIN, 0)
                                          : status;
}

MailslotWrite WriteMailslot(std::u16string_view name, MessageParts message, std::uint32_t limitMs) {
  if (!IsMailslotName(name)) return MailslotWrite::kFailed;
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
}

bool MailslotExists(std::u16string_view name) {
  if (!IsMailslotName(name)) return false;
  const std::string file = FileNameOf(name);
  const Descriptor directory = OpenRuntimeFolder(FolderOf(file), false);
  return directory.valid() && StateOfName(directory.get(), file) == NameState::kTaken;
}

void RemoveStaleMailslots() {
  RemoveStaleMailslotsIn(RuntimeFolder::kMailslot);
  RemoveStaleMailslotsIn(RuntimeFolder::kLocator);
}

}  // namespace talvorn::platform
