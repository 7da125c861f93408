// The memory files that this process has sent and nobody has received yet. They occupy our memory
// for as long as their receivers like, so their number is bounded. Any thread may call this.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/mailslot.h"
#include "platform/posix/descriptor.h"

namespace talvorn::platform {

// The socket file of a mailslot.
struct MailslotFile {
  dev_t device = 0;
  ino_t inode = 0;
  uid_t account = 0;
};

class UnreadFiles {
 public:
  static constexpr std::size_t kMostOfAccount = 32;
  static constexpr std::size_t kMost = 128;
  static constexpr std::size_t kLargestKept = 8 << 20;

  // That of this process.
  [[nodiscard]] static UnreadFiles& Own();

  // False when a file waits in this mailslot already, or as many as may be wait for
  // its account or for all.
  [[nodiscard]] bool HasRoomFor(const MailslotFile& receiver);
  // A file with this message: the last one again if it has the same. Null when the
  // system has no room for it.
  [[nodiscard]] std::shared_ptr<const Descriptor> FileWith(MessageParts message);
  // A file has gone to `receiver` by way of `socket`.
  void Add(const MailslotFile& receiver, Descriptor socket);

 private:
  struct Unread {
    MailslotFile receiver;
    Descriptor socket;
  };

  void ForgetReceived();

  std::mutex mutex_;
  std::vector<Unread> unread_;
  std::shared_ptr<const Descriptor> last_;  // a large one only while some are unread
  std::size_t lastSize_ = 0;
};

}  // namespace talvorn::platform
