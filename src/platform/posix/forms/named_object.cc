#include "platform/named_object.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <mutex>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/fault_injection.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/forms/object_file.h"
#include "platform/posix/forms/runtime_directory.h"
#include "platform/posix/io.h"
#include "platform/posix/obstacle.h"
#include "platform/posix/unix_address.h"
#include "platform/posix/wait.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {

struct NamedObject::State {
  explicit State(std::u16string_view name) : file(name) {}

  [[nodiscard]] bool IsMutex() const { return file.held() && file.kind() == ObjectKind::kMutex; }
  [[nodiscard]] bool IsEvent() const {
    return file.held() && (file.kind() == ObjectKind::kAutoResetEvent ||
                           file.kind() == ObjectKind::kManualResetEvent);
  }

  ObjectFile file;
  std::mutex consuming;  // by threads of this process that share the event
};

void NamedObject::StateDeleter::operator()(State* state) const { delete state; }

namespace {

// Says that some of the events one thread waits on may have changed. One per thread
// and kept, since making and closing it takes long.
class ChangeWatch {
 public:
  ChangeWatch() : inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

  [[nodiscard]] int descriptor() const { return inotify_.get(); }

  // The file is watched until it is removed. False when the system's limit of
  // watches is reached.
  [[nodiscard]] bool Add(int fd) const {
    return inotify_add_watch(inotify_.get(), UnixAddress::OfDescriptor(fd).path(), IN_MODIFY) >= 0;
  }

  void Drain() const {
    alignas(inotify_event) std::array<std::byte, 4096> notices;
    while (read(inotify_.get(), notices.data(), notices.size()) ==
           static_cast<ssize_t>(notices.size())) {
    }
  }

 private:
  Descriptor inotify_;
};

bool IsSignalled(const ObjectRecord& record, std::uint64_t seen) {
  return record.state != 0 || record.signal != seen;
}

// True for one of the waiters that find an auto-reset event signalled. `seen` becomes
// the number of a signal that another one got.
bool Consume(const ObjectFile& file, std::mutex& consuming, std::uint64_t& seen) {
  constexpr off_t kConsumerByte = 1;
  constexpr std::uint32_t kPatienceMs = 50;
  const std::lock_guard threads(consuming);
  // Only waiters lock this byte, and for a moment; somebody who keeps it cannot keep us.
  (void)Within(kPatienceMs, [&] { return LockByte(file.descriptor(), F_WRLCK, kConsumerByte); });
  const ObjectRecord record = file.Read();
  const bool ours =
      record.state != 0 || (record.signal != seen && record.signal != record.consumed);
  seen = record.signal;
  const bool consumed = ours && file.WriteConsumed(record.signal);
  (void)LockByte(file.descriptor(), F_UNLCK, kConsumerByte);
  return consumed;
}

void TellOfObstacle(std::u16string_view name) {
  ReportObstacle("cannot hold " + WideToUtf8(name) + ": something is in its way in " +
                 RuntimeFolderPath(RuntimeFolder::kObjects) +
                 ", or another program locks its file, or nothing can be made there. Remove what "
                 "is in the way as root, and start again.");
}

}  // namespace

NamedMutex NamedMutex::Create(std::u16string_view name, ObjectAccess /*access*/) {
  NamedMutex mutex;
  if (!FaultHits(Fault::kNamedObjectOpen)) {
    mutex.state_.reset(new State(name));
    mutex.state_->file.Create(ObjectKind::kMutex);
    if (!mutex.state_->IsMutex()) mutex.Close();
  }
  if (!mutex.valid()) TellOfObstacle(name);
  return mutex;
}

NamedMutex NamedMutex::Open(std::u16string_view name) {
  NamedMutex mutex;
  if (FaultHits(Fault::kNamedObjectOpen)) return mutex;
  mutex.state_.reset(new State(name));
  mutex.state_->file.Open();
  // Whoever has taken the name keeps others from holding the mutex; their need of it must
  // not look gone for that.
  if (!mutex.state_->file.claimed()) mutex.Close();
  return mutex;
}

NamedEvent NamedEvent::Create(std::u16string_view name, Mode mode, ObjectAccess /*access*/) {
  NamedEvent event;
  if (!FaultHits(Fault::kNamedObjectOpen)) {
    event.state_.reset(new State(name));
    event.state_->file.Create(mode == Mode::kAutoReset ? ObjectKind::kAutoResetEvent
                                                       : ObjectKind::kManualResetEvent);
    if (!event.state_->IsEvent()) event.Close();
  }
  if (!event.valid()) TellOfObstacle(name);
  return event;
}

NamedEvent NamedEvent::Open(std::u16string_view name) {
  NamedEvent event;
  if (FaultHits(Fault::kNamedObjectOpen)) return event;
  event.state_.reset(new State(name));
  event.state_->file.Open();
  if (!event.state_->IsEvent()) event.Close();
  return event;
}

// A new signal number releases those who wait, however soon the state changes again.
bool NamedEvent::Set() { return valid() && state_->file.WriteSignal(1); }
bool NamedEvent::Reset() { return valid() && state_->file.WriteState(0); }
bool NamedEvent::Pulse() { return valid() && state_->file.WriteSignal(0); }

NamedEvent::WaitResult NamedEvent::WaitAny(std::span<NamedEvent* const> events,
                                           const Waitable* interrupt, WaitLimit limit) {
  using Status = WaitResult::Status;
  struct Watched {
    State* state;
    std::size_t index;
    std::uint64_t seen;  // the last signal of the past, which releases nobody who comes now
  };
  thread_local const ChangeWatch watch;
  std::vector<Watched> watched;
  bool notified = watch.descriptor() >= 0;
  for (std::size_t i = 0; i < events.size(); ++i) {
    if (events[i] == nullptr || !events[i]->valid()) continue;
    State* const state = events[i]->state_.get();
    notified = notified && watch.Add(state->file.descriptor());
    watched.push_back({state, i, 0});
  }
  watch.Drain();
  for (Watched& event : watched) event.seen = event.state->file.Read().signal;

  const int interruptDescriptor =
      interrupt != nullptr ? static_cast<int>(interrupt->waitHandle()) : -1;
  if (interrupt != nullptr && interruptDescriptor < 0) limit = LimitToPoll(limit);
  const std::uint64_t deadline = MonotonicMs() + limit.value_or(0);
  for (bool interrupted = false, late = false;;) {
    for (Watched& event : watched) {
      const ObjectFile& file = event.state->file;
      if (!IsSignalled(file.Read(), event.seen)) continue;
      if (file.kind() == ObjectKind::kManualResetEvent ||
          Consume(file, event.state->consuming, event.seen)) {
        return {Status::kEvent, event.index};
      }
    }
    if (interrupted) return {Status::kInterrupted};
    if (late) return {Status::kTimeout};

    WaitLimit left;
    if (limit) {
      const std::uint64_t now = MonotonicMs();
      left = static_cast<std::uint32_t>(now < deadline ? deadline - now : 0);
      late = left == 0u;
    }
    if (!notified) left = LimitToPoll(left);
    std::array<pollfd, 2> descriptors = {pollfd{watch.descriptor(), POLLIN, 0},
                                         pollfd{interruptDescriptor, POLLIN, 0}};
    if (PollDescriptors(descriptors, left) < 0) return {};
    interrupted = descriptors[1].revents != 0;
    watch.Drain();
  }
}

}  // namespace talvorn::platform
