#include "platform/named_object.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/fault_injection.h"
#include "platform/obstacle.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/forms/object_file.h"
#include "platform/posix/forms/runtime_directory.h"
#include "platform/posix/unix_address.h"
#include "platform/posix/wait.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {

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

bool IsEvent(const ObjectFile& file) {
  return file.held() && (file.kind() == ObjectKind::kAutoResetEvent ||
                         file.kind() == ObjectKind::kManualResetEvent);
}

bool IsMutex(const ObjectFile& file) { return file.held() && file.kind() == ObjectKind::kMutex; }

}  // namespace

struct NamedObject::State {
  explicit State(std::u16string_view name) : file(name) {}

  ObjectFile file;

  // Makes an object of this kind, if any, or looks for what is there; null when it is not
  // the right one then.
  static std::shared_ptr<State> On(std::u16string_view name, std::optional<ObjectKind> make,
                                   bool (*isRight)(const ObjectFile&)) {
    auto state = std::make_shared<State>(name);
    if (FaultHits(Fault::kNamedObjectOpen)) return nullptr;
    make ? state->file.Create(*make) : state->file.Open();
    if (isRight(state->file)) return state;
    if (make) {
      ReportObstacle("cannot hold " + WideToUtf8(name) + ": something is in its way in " +
                     RuntimeFolderPath(RuntimeFolder::kObjects) +
                     ", or another program locks its file, or nothing can be made there. Remove "
                     "what is in the way as root, and start again.");
    }
    return nullptr;
  }
};

bool NamedObject::IsInPlace() const { return valid() && state_->file.IsInPlace(); }

NamedMutex NamedMutex::Create(std::u16string_view name, ObjectAccess /*access*/) {
  return NamedMutex(State::On(name, ObjectKind::kMutex, IsMutex));
}

NamedMutex NamedMutex::Open(std::u16string_view name) {
  // Whoever has taken the name keeps others from holding the mutex; their need of it must
  // not look gone for that.
  return NamedMutex(State::On(name, {}, [](const ObjectFile& file) { return file.claimed(); }));
}

NamedEvent NamedEvent::Create(std::u16string_view name, ObjectAccess /*access*/) {
  return NamedEvent(State::On(name, ObjectKind::kManualResetEvent, IsEvent));
}

NamedEvent NamedEvent::Open(std::u16string_view name) {
  return NamedEvent(State::On(name, {}, IsEvent));
}

// A new signal number releases those who wait, however soon the state changes again.
bool NamedEvent::Set() { return state_ != nullptr && state_->file.WriteSignal(1); }
bool NamedEvent::Reset() { return state_ != nullptr && state_->file.WriteState(0); }
bool NamedEvent::Pulse() { return state_ != nullptr && state_->file.WriteSignal(0); }

NamedEvent::WaitResult NamedEvent::WaitAny(std::span<NamedEvent* const> events,
                                           const Waitable* interrupt, WaitLimit limit) {
  using Status = WaitResult::Status;
  thread_local const ChangeWatch watch;
  // What there is to wait for, with the signals of the past, which release nobody who
  // comes now.
  struct Awaited {
    std::size_t index;
    const ObjectFile& file;
    std::uint64_t seen;
  };
  std::vector<Awaited> awaited;
  bool notified = watch.descriptor() >= 0;
  for (std::size_t i = 0; i < events.size(); ++i) {
    if (events[i] == nullptr || !events[i]->valid()) continue;
    awaited.push_back({i, events[i]->state_->file, 0});
    notified = notified && watch.Add(awaited.back().file.descriptor());
  }
  watch.Drain();
  for (Awaited& event : awaited) event.seen = event.file.Read().signal;

  int interruptDescriptor = -1;
  if (interrupt != nullptr) {
    interruptDescriptor = static_cast<int>(interrupt->waitHandle());
    if (interruptDescriptor < 0) limit = LimitToPoll(limit);
  }
  const std::uint64_t deadline = MonotonicMs() + limit.value_or(0);
  for (bool interrupted = false, late = false;;) {
    for (const Awaited& event : awaited) {
      const ObjectRecord record = event.file.Read();
      if (record.state != 0 || record.signal != event.seen) return {Status::kEvent, event.index};
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
