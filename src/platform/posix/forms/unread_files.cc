#include "platform/posix/forms/unread_files.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>

#include "platform/posix/forms/memory_file.h"

namespace talvorn::platform {
namespace {

// Nothing that was sent through the socket waits at its other end.
bool IsReceived(int socket) {
  int waiting = 0;
  return ioctl(socket, SIOCOUTQ, &waiting) != 0 || waiting == 0;
}

}  // namespace

UnreadFiles& UnreadFiles::Own() {
  // Never destroyed: threads may write until the process has gone.
  static UnreadFiles& own = *new UnreadFiles;
  return own;
}

bool UnreadFiles::HasRoomFor(const MailslotFile& receiver) {
  const std::lock_guard lock(mutex_);
  ForgetReceived();
  std::size_t ofAccount = 0;
  for (const Unread& one : unread_) {
    if (one.receiver.device == receiver.device && one.receiver.inode == receiver.inode)
      return false;
    if (one.receiver.account == receiver.account) ++ofAccount;
  }
  return ofAccount < kMostOfAccount && unread_.size() < kMost;
}

std::shared_ptr<const Descriptor> UnreadFiles::FileWith(MessageParts message) {
  const std::lock_guard lock(mutex_);
  if (last_ && HoldsContent(last_->get(), message)) return last_;
  last_.reset();
  lastSize_ = SizeOf(message);
  Descriptor file = MakeMemoryFile(message);
  if (!file.valid()) return nullptr;
  return last_ = std::make_shared<const Descriptor>(std::move(file));
}

void UnreadFiles::Add(const MailslotFile& receiver, Descriptor socket) {
  const std::lock_guard lock(mutex_);
  unread_.push_back({receiver, std::move(socket)});
}

void UnreadFiles::ForgetReceived() {
  std::erase_if(unread_, [](const Unread& one) { return IsReceived(one.socket.get()); });
  // Lists hardly change, so that the next reply is mostly the same.
  if (unread_.empty() && lastSize_ > kLargestKept) last_.reset();
}

}  // namespace talvorn::platform
