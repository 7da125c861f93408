// The receiving end of a mailslot: a datagram socket that anybody may send to. One thread reads
// it. Messages of accounts that are not listened to are dropped unread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "platform/mailslot.h"
#include "platform/posix/descriptor.h"

namespace talvorn::platform {

class MessageQueue final : public Waitable {
 public:
  enum class Files { kTaken, kRefused };

  // A socket that tells each sender's account; none when the system has none left. With kRefused
  // messages that carry descriptors are dropped, since Linux 6.16 by the kernel.
  [[nodiscard]] static Descriptor MakeSocket(Files files);

  MessageQueue(Descriptor socket, Files files) : socket_(std::move(socket)), files_(files) {}
  // Takes out what waits, so that closing has nothing to close but the socket.
  ~MessageQueue();
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;

  [[nodiscard]] int descriptor() const { return socket_.get(); }
  [[nodiscard]] std::intptr_t waitHandle() const override { return socket_.get(); }

  // From now on messages of all other accounts are dropped.
  void AcceptOnlyFrom(uid_t account) { only_ = account; }

  // As Mailslot::Take(). Never blocks for longer than a moment, whatever the message
  // carries.
  [[nodiscard]] Mailslot::Taken Take(Message& message, std::size_t largest);

 private:
  Descriptor socket_;
  Files files_;
  std::optional<uid_t> only_;
};

}  // namespace talvorn::platform
