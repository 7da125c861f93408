#include "platform/named_object.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/fault_injection.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/forms/object_file.h"
#include "platform/posix/forms/runtime_directory.h"
#include "platform/posix/obstacle.h"
#include "platform/posix/unix_address.h"
#include "platform/posix/wait.h"
#include "platform/text_encoding.h"
#include "platform/thread.h"

namespace talvorn::platform {

struct NamedMutex::State {
  explicit State(ObjectFile object) : file(std::move(object)) {}

  ObjectFile file;
};

struct NamedEvent::State {
  explicit State(ObjectFile object) : file(std::move(object)) {}

  ObjectFile file;
  std::mutex consuming;  // by threads of this process that share the event
};

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

// Keeps other waiters from consuming the same signal. Only waiters lock this byte,
// and for a moment; somebody who keeps it cannot keep us, so that having it is not
// certain.
class ConsumerLock {
 public:
  explicit ConsumerLock(int fd) : fd_(fd) {
    constexpr int kAttempts = 50;
    for (int attempt = 0; !Set(F_WRLCK) && attempt < kAttempts; ++attempt) SleepMs(1);
  }
  ~ConsumerLock() { (void)Set(F_UNLCK); }
  ConsumerLock(const ConsumerLock&) = delete;
  ConsumerLock& operator=(const ConsumerLock&) = delete;

 private:
  [[nodiscard]] bool Set(short type) const {
    constexpr off_t kConsumerByte = 1;
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = kConsumerByte;
    lock.l_len = 1;
    return fcntl(fd_, F_OFD_SETLK, &lock) == 0;
  }

  int fd_;
};

bool IsSignalled(const ObjectRecord& record, std::uint64_t seen) {
  return record.state != 0 || record.signal != seen;
}

// True for one of the waiters that find an auto-reset event signalled. `seen` becomes
// the number of a signal that another one got.
bool Consume(const ObjectFile& file, std::mutex& consuming, std::uint64_t& seen) {
  const std::lock_guard threads(consuming);
  const ConsumerLock processes(file.descriptor());
  const ObjectRecord record = file.Read();
  const bool ours =
      record.state != 0 || (record.signal != seen && record.signal != record.consumed);
  seen = record.signal;
  return ours && file.WriteConsumed(record.signal);
}

bool IsEvent(const ObjectFile& file) {
  return file.valid() && (file.kind() == ObjectKind::kAutoResetEvent ||
                          file.kind() == ObjectKind::kManualResetEvent);
}

bool IsMutex(const ObjectFile& file) { return file.valid() && file.kind() == ObjectKind::kMutex; }

void TellOfObstacle(std::u16string_view name) {
  ReportObstacle("cannot hold " + WideToUtf8(name) + ": something is in its way in " +
                 RuntimeFolderPath(RuntimeFolder::kObjects) +
                 ", or another program locks its file, or nothing can be made there. Remove what "
                 "is in the way as root, and start again.");
}

// `open` gives a file; a state on it when it is of the right kind.
template <typename State, typename Open>
std::unique_ptr<State> StateOn(bool (*isRightKind)(const ObjectFile&), Open open) {
  if (FaultHits(Fault::kNamedObjectOpen)) return nullptr;
  try {
    ObjectFile file = open();
    return isRightKind(file) ? std::make_unique<State>(std::move(file)) : nullptr;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

NamedMutex::NamedMutex() = default;
NamedMutex::~NamedMutex() = default;
NamedMutex::NamedMutex(NamedMutex&& other) noexcept = default;
NamedMutex& NamedMutex::operator=(NamedMutex&& other) noexcept = default;
void NamedMutex::Close() { state_.reset(); }

NamedMutex NamedMutex::Create(std::u16string_view name, ObjectAccess /*access*/) {
  NamedMutex mutex;
  mutex.state_ =
      StateOn<State>(IsMutex, [name] { return ObjectFile::Create(name, ObjectKind::kMutex); });
  if (!mutex.valid()) TellOfObstacle(name);
  return mutex;
}

NamedMutex NamedMutex::Open(std::u16string_view name) {
  NamedMutex mutex;
  mutex.state_ = StateOn<State>(IsMutex, [name] { return ObjectFile::Open(name); });
  // Whoever has taken the name keeps others from holding the mutex; their need of it must
  // not look gone for that.
  if (!mutex.valid() && ObjectFile::IsClaimed(name))
    mutex.state_ = std::make_unique<State>(ObjectFile());
  return mutex;
}

NamedEvent::NamedEvent() = default;
NamedEvent::~NamedEvent() = default;
NamedEvent::NamedEvent(NamedEvent&& other) noexcept = default;
NamedEvent& NamedEvent::operator=(NamedEvent&& other) noexcept = default;
void NamedEvent::Close() { state_.reset(); }

NamedEvent NamedEvent::Create(std::u16string_view name, Mode mode, ObjectAccess /*access*/) {
  const ObjectKind kind =
      mode == Mode::kAutoReset ? ObjectKind::kAutoResetEvent : ObjectKind::kManualResetEvent;
  NamedEvent event;
  event.state_ = StateOn<State>(IsEvent, [=] { return ObjectFile::Create(name, kind); });
  if (!event.valid()) TellOfObstacle(name);
  return event;
}

NamedEvent NamedEvent::Open(std::u16string_view name) {
  NamedEvent event;
  event.state_ = StateOn<State>(IsEvent, [name] { return ObjectFile::Open(name); });
  return event;
}

// A new signal number releases those who wait, however soon the state changes again.
bool NamedEvent::Set() { return state_ != nullptr && state_->file.WriteSignal(1); }
bool NamedEvent::Reset() { return state_ != nullptr && state_->file.WriteState(0); }
bool NamedEvent::Pulse() { return state_ != nullptr && state_->file.WriteSignal(0); }

NamedEvent::WaitResult NamedEvent::WaitAny(std::span<NamedEvent* const> events,
                                           const Waitable* interrupt, WaitLimit limit) {
  using Status = WaitResult::Status;
  thread_local const ChangeWatch watch;
  try {
    // The signals of the past, which release nobody who comes now.
    std::vector<std::uint64_t> seen(events.size());
    bool notified = watch.descriptor() >= 0;
    for (const NamedEvent* event : events) {
      if (event == nullptr || !event->valid()) continue;
      notified = notified && watch.Add(event->state_->file.descriptor());
    }
    watch.Drain();
    for (std::size_t i = 0; i < events.size(); ++i) {
      if (events[i] == nullptr || !events[i]->valid()) continue;
      seen[i] = events[i]->state_->file.Read().signal;
    }

    int interruptDescriptor = -1;
    if (interrupt != nullptr) {
      interruptDescriptor = static_cast<int>(interrupt->waitHandle());
      if (interruptDescriptor < 0) limit = LimitToPoll(limit);
    }
    const std::uint64_t deadline = MonotonicMs() + limit.value_or(0);
    for (bool interrupted = false, late = false;;) {
      for (std::size_t i = 0; i < events.size(); ++i) {
        if (events[i] == nullptr || !events[i]->valid()) continue;
        State& state = *events[i]->state_;
        if (!IsSignalled(state.file.Read(), seen[i])) continue;
        if (state.file.kind() == ObjectKind::kManualResetEvent ||
            Consume(state.file, state.consuming, seen[i])) {
          return {Status::kEvent, i};
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
  } catch (const std::bad_alloc&) {
    return {};
  }
}

}  // namespace talvorn::platform
