#include "service/locator_program.h"

#include <array>
#include <utility>

#include "platform/clock.h"
#include "platform/win32/handle.h"
#include "platform/win32/wait.h"
#include "platform/win32/wide_text.h"
#include "support/text_format.h"

namespace talvorn::service {

using platform::KernelHandle;
using platform::ToNative;
using platform::WaitList;
using platform::WaitStatus;

namespace {

constexpr std::u16string_view kLocator = u"talvorn-locator.exe";
// How long a process may take to go once it was ended.
constexpr std::uint32_t kEndLimitMs = 10'000;

// What is in it ends with its last handle, and is one process at most.
KernelHandle MakeJob() {
  KernelHandle job(CreateJobObjectW(nullptr, nullptr));
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags =
      JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_ACTIVE_PROCESS;
  limits.BasicLimitInformation.ActiveProcessLimit = 1;
  if (job.valid() && SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits,
                                             sizeof(limits)) == FALSE) {
    job.Close();
  }
  return job;
}

}  // namespace

struct LocatorProgram::Run {
  KernelHandle job;
  KernelHandle process;

  // Windows' error, 0 when the program runs.
  DWORD Begin(const std::u16string& path) {
    job = MakeJob();
    if (!job.valid()) return GetLastError();
    std::u16string commandLine = u"\"" + path + u"\"";  // the call may write into it
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION information{};
    // Suspended, so that it does nothing outside of its job.
    if (CreateProcessW(ToNative(path), ToNative(commandLine.data()), nullptr, nullptr, FALSE,
                       CREATE_SUSPENDED, nullptr, nullptr, &startup, &information) == FALSE) {
      return GetLastError();
    }
    process = KernelHandle(information.hProcess);
    const KernelHandle thread(information.hThread);
    if (AssignProcessToJobObject(job.get(), process.get()) != FALSE &&
        ResumeThread(thread.get()) != static_cast<DWORD>(-1)) {
      return 0;
    }
    const DWORD error = GetLastError();
    (void)TerminateProcess(process.get(), 1);  // it may not be in the job
    return error;
  }

  ~Run() {
    job.Close();
    if (process.valid()) (void)WaitList(process.get()).Wait(kEndLimitMs);
  }
};

LocatorProgram::LocatorProgram(std::u16string path, const platform::Waitable& stop,
                               const EventSource& events)
    : path_(std::move(path)), stop_(stop), events_(events) {}

LocatorProgram::~LocatorProgram() = default;

bool LocatorProgram::Start() {
  run_ = std::make_unique<Run>();
  const DWORD error = run_->Begin(path_);
  if (error == 0) {
    reportedError_ = 0;
    return true;
  }
  run_.reset();
  // Once, and not each minute.
  if (std::exchange(reportedError_, error) != error) {
    std::array<char16_t, 200> text{};
    FormatTextW(text,
                u"The locator cannot be started, Windows' error is %u. It is tried again, at "
                u"least once a minute.",
                error);
    Report(events_, EventKind::kError, text.data());
  }
  return false;
}

bool LocatorProgram::WaitForEnd() {
  WaitList waits(run_->process.get());
  waits.Add(stop_);
  DWORD first = 0;
  return waits.Wait(std::nullopt, &first) == WaitStatus::kSignalled && first == 0;
}

bool LocatorProgram::PauseBeforeStart(std::uint32_t pauseMs) {
  if (run_ != nullptr) {
    DWORD status = 0;
    (void)GetExitCodeProcess(run_->process.get(), &status);
    std::array<char16_t, 200> text{};
    FormatTextW(text, u"The locator has ended with %u. It is started again in %u s.", status,
                pauseMs / 1'000);
    Report(events_, EventKind::kWarning, text.data());
  }
  WaitList waits;
  waits.Add(stop_);
  return waits.Wait(pauseMs) == WaitStatus::kTimeout;
}

std::uint64_t LocatorProgram::NowMs() { return platform::MonotonicMs(); }

std::u16string LocatorPath() {
  constexpr std::size_t kLongestPath = 32'768;
  std::wstring path(kLongestPath, L'\0');
  const DWORD size = GetModuleFileNameW(nullptr, path.data(), kLongestPath);
  if (size == 0 || size == kLongestPath) return {};
  const std::u16string own = platform::FromNative(path.data(), size);
  return own.substr(0, own.rfind(u'\\') + 1).append(kLocator);
}

}  // namespace talvorn::service
