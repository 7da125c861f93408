#include "platform/event_log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>

#include "platform/fault_injection.h"
#include "platform/posix/account_name.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/forms/event_message.h"
#include "platform/posix/io.h"
#include "platform/posix/unix_address.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

constexpr const char* kJournalSocket = "/run/systemd/journal/socket";
constexpr const char* kSyslogSocket = "/dev/log";

// One socket serves all sources of the process; -1 when none could be made.
int ReportSocket() {
  static std::mutex mutex;
  static int shared = -1;
  const std::lock_guard lock(mutex);
  if (shared < 0) shared = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  return shared;
}

// False when nobody is there to take the message; one that is not taken for
// another reason is lost.
bool SendMessage(const std::string& path, const std::string& message) {
  std::optional<UnixAddress> address;
  Descriptor file;
  if (UnixAddress::Fits(path)) {
    address = UnixAddress(path);
  } else {
    file = Descriptor(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (!file.valid()) return false;
    address = UnixAddress::OfDescriptor(file.get());
  }
  const ssize_t sent = sendto(ReportSocket(), message.data(), message.size(),
                              MSG_DONTWAIT | MSG_NOSIGNAL, address->get(), address->size());
  return sent >= 0 || (errno != ENOENT && errno != ENOTDIR && errno != ECONNREFUSED);
}

}  // namespace

std::optional<UserIdentity> CurrentUserIdentity() {
  const std::string name = AccountName(geteuid());
  UserIdentity identity;
  identity.bytes.resize(name.size());
  std::memcpy(identity.bytes.data(), name.data(), name.size());
  return identity;
}

struct EventLog::State {
  std::string source;
  std::string journal;
  bool orSyslog;  // where there is no journal
};

EventLog EventLog::Register(std::u16string_view sourceName) {
  EventLog log;
  if (FaultHits(Fault::kEventLogRegister) || ReportSocket() < 0) return log;
  const char* const configured = Environment("TALVORN_JOURNAL_SOCKET", nullptr);
  log.state_ = std::make_shared<State>(State{WideToUtf8(sourceName),
                                             configured != nullptr ? configured : kJournalSocket,
                                             configured == nullptr});
  return log;
}

void EventLog::Report(EventKind kind, std::uint16_t category, std::uint32_t eventId,
                      const UserIdentity* user, std::u16string_view text) const {
  if (state_ == nullptr) return;
  const std::string utf8 = WideToUtf8(text);
  EventMessage message{kind, category, eventId, state_->source, {}, utf8};
  if (user != nullptr) {
    message.user = {reinterpret_cast<const char*>(user->bytes.data()), user->bytes.size()};
  }
  if (SendMessage(state_->journal, JournalEntry(message)) || !state_->orSyslog) return;
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  (void)SendMessage(kSyslogSocket, SyslogLine(message, local, getpid()));
}

}  // namespace talvorn::platform
