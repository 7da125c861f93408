#include "platform/posix/forms/message_queue.h"

#include <errno.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "platform/obstacle.h"
#include "platform/posix/forms/memory_file.h"
#include "platform/thread.h"

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83  // since Linux 6.16
#endif

namespace talvorn::platform {
namespace {

// So long the system may take to close what came along with a dropped message.
constexpr int kDisposalMs = 5;

// Room for the sender's account, then, for who wants it, for one descriptor.
constexpr std::size_t kAccountRoom = CMSG_SPACE(sizeof(ucred));
constexpr std::size_t kFileRoom = CMSG_LEN(sizeof(int));

// A message, or the look at one.
struct Received {
  std::size_t size = 0;
  uid_t account = static_cast<uid_t>(-1);
  Descriptor file{};
  int flags = 0;  // MSG_CTRUNC: descriptors had no room
};

// recvmsg() that does not wait. None when no message waits.
std::optional<Received> Receive(int socket, iovec bytes, std::size_t controlRoom, int flags) {
  alignas(cmsghdr) std::array<std::byte, kAccountRoom + CMSG_SPACE(sizeof(int))> control;
  msghdr header{};
  header.msg_iov = &bytes;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = controlRoom;
  const ssize_t size = recvmsg(socket, &header, flags | MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (size < 0) return std::nullopt;
  Received received{.size = static_cast<std::size_t>(size), .flags = header.msg_flags};
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET) continue;
    if (part->cmsg_type == SCM_CREDENTIALS) {
      ucred sender{};
      std::memcpy(&sender, CMSG_DATA(part), sizeof(sender));
      received.account = sender.uid;
    } else if (part->cmsg_type == SCM_RIGHTS) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(part), sizeof(fd));
      received.file = Descriptor(fd);
    }
  }
  return received;
}

// What the next message is: its size, its sender, and by MSG_CTRUNC whether it carries
// descriptors, which get no number by the look.
std::optional<Received> LookAtNext(int socket) {
  std::byte none{};
  return Receive(socket, {&none, 1}, kAccountRoom, MSG_PEEK | MSG_TRUNC);
}

void* DropNext(void* socket) {
  (void)recv(*static_cast<const int*>(socket), nullptr, 0, MSG_DONTWAIT);
  return nullptr;
}

// recv() closes the descriptors of a dropped message before it returns, which blocks for as long
// as their maker likes (SO_LINGER); only a signal ends it, so it runs in a thread that is
// cancelled. False without a thread; a message that is still there is dropped the next time.
bool DropWithDescriptors(int socket) {
  pthread_t thread{};
  if (pthread_create(&thread, nullptr, DropNext, &socket) != 0) return false;
  for (int passed = 0; passed < kDisposalMs; ++passed) {
    if (pthread_tryjoin_np(thread, nullptr) == 0) return true;
    SleepMs(1);
  }
  (void)pthread_cancel(thread);
  (void)pthread_join(thread, nullptr);
  return true;
}

bool Drop(int socket, const Received& next) {
  if ((next.flags & MSG_CTRUNC) != 0) return DropWithDescriptors(socket);
  (void)DropNext(&socket);
  return true;
}

void TellOfStranger(uid_t account) {
  ReportObstacle("account " + std::to_string(account) +
                 " writes to the reply mailslot of this program, which is for the locator alone; "
                 "what it writes is passed over.");
}

}  // namespace

Descriptor MessageQueue::MakeSocket(Files files) {
  Descriptor made(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  constexpr int kOn = 1;
  constexpr int kOff = 0;
  if (!made.valid() || setsockopt(made.get(), SOL_SOCKET, SO_PASSCRED, &kOn, sizeof(kOn)) != 0)
    return {};
  if (files == Files::kRefused) {
    (void)setsockopt(made.get(), SOL_SOCKET, SO_PASSRIGHTS, &kOff, sizeof(kOff));
  }
  return made;
}

MessageQueue::~MessageQueue() {
  if (!socket_.valid()) return;
  (void)shutdown(socket_.get(), SHUT_RD);  // nobody sends any more
  for (auto next = LookAtNext(socket_.get()); next && Drop(socket_.get(), *next);) {
    next = LookAtNext(socket_.get());
  }
}

Mailslot::Taken MessageQueue::Take(Message& message, std::size_t largest) {
  using Taken = Mailslot::Taken;
  const auto next = LookAtNext(socket_.get());
  if (!next) return errno == EBADF || errno == ENOTSOCK ? Taken::kFailed : Taken::kNone;
  const bool stranger = only_ && next->account != *only_;
  const bool carries = (next->flags & MSG_CTRUNC) != 0;
  if (stranger || (carries && files_ == Files::kRefused) || next->size > largest) {
    if (stranger) TellOfStranger(next->account);
    return Drop(socket_.get(), *next) ? Taken::kLost : Taken::kFailed;
  }

  // What comes with a file has no bytes of its own.
  const auto bytes = std::make_shared<std::vector<std::byte>>(carries ? 0 : next->size);
  const auto received =
      Receive(socket_.get(), {bytes->data(), bytes->size()}, kAccountRoom + kFileRoom, 0);
  if (!received) return Taken::kNone;
  if ((received->flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) return Taken::kLost;
  if (!carries) {
    message = Message(bytes, *bytes);
    return Taken::kMessage;
  }
  auto mapped = MapMemoryFile(received->file.get(), std::min(largest, kLargestMessage));
  if (mapped) message = *std::move(mapped);
  return mapped ? Taken::kMessage : Taken::kLost;
}

}  // namespace talvorn::platform
