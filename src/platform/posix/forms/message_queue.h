// The receiving end of a mailslot: a datagram socket that anybody may send to. What
// other accounts send along, or in the place of the one that is listened to, is taken
// out of the queue without being touched. One thread uses it.
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

  // A socket that attests who sends; none when the system has none left. With kRefused
  // every message that carries descriptors is dropped; where the system can, it does
  // not even let them come.
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
  [[nodiscard]] Mailslot::Taken Take(std::vector<std::byte>& message, std::size_t largest);

 private:
  Descriptor socket_;
  Files files_;
  std::optional<uid_t> only_;
};

}  // namespace talvorn::platform
