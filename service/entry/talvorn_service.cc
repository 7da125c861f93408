// talvorn-service: the Windows service that keeps the locator running, from the machine's start
// to its end and for every session. Whoever installs it chooses its name.
#include <cstdlib>
#include <exception>

#include "platform/console.h"
#include "platform/event.h"
#include "platform/win32/windows_api.h"
#include "service/locator_program.h"
#include "service/privileges.h"
#include "service/supervision.h"
#include "support/event_source.h"

namespace talvorn::service {
namespace {

using platform::Event;

// What the service manager knows of the service.
class Status {
 public:
  void Attach(SERVICE_STATUS_HANDLE handle) { handle_ = handle; }

  void Tell(DWORD state, DWORD error = NO_ERROR) const {
    constexpr DWORD kAccepted =
        SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_PRESHUTDOWN;
    constexpr DWORD kHintMs = 15'000;  // how long a change may take
    const bool changes = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? kAccepted : 0;
    status.dwWin32ExitCode = error;
    status.dwCheckPoint = changes ? 1 : 0;
    status.dwWaitHint = changes ? kHintMs : 0;
    (void)SetServiceStatus(handle_, &status);
  }

 private:
  SERVICE_STATUS_HANDLE handle_ = nullptr;
};

struct Service {
  Status status;
  Event stop = Event::Create(Event::Mode::kManualReset);
};

DWORD WINAPI OnControl(DWORD control, DWORD, void*, void* context) {
  const auto& service = *static_cast<const Service*>(context);
  switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
    case SERVICE_CONTROL_PRESHUTDOWN:
      service.status.Tell(SERVICE_STOP_PENDING);
      service.stop.Set();
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

void Serve(const Event& stop) {
  EventSource events;
  (void)OpenEventSource(events, kSourceTalvorn);
  LocatorProgram locator(LocatorPath(), stop, events);
  Supervise(locator);
}

void WINAPI ServiceMain(DWORD, wchar_t** arguments) {
  // Never destroyed: the service manager's thread uses it until the process ends.
  static Service& service = *new Service;
  const SERVICE_STATUS_HANDLE handle =
      RegisterServiceCtrlHandlerExW(arguments[0], &OnControl, &service);
  if (handle == nullptr) return;
  service.status.Attach(handle);
  if (!service.stop.valid()) {
    service.status.Tell(SERVICE_STOPPED, ERROR_NOT_ENOUGH_MEMORY);
    return;
  }
  service.status.Tell(SERVICE_RUNNING);
  Serve(service.stop);
  service.status.Tell(SERVICE_STOPPED);
}

}  // namespace
}  // namespace talvorn::service

int wmain() {
  using namespace talvorn;
  // No dialogues, which nobody would see. A crash ends the process, and the service manager
  // starts it again.
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
  constexpr UINT kGivenUp = 3;  // as abort()
  std::set_terminate([] { TerminateProcess(GetCurrentProcess(), kGivenUp); });
  (void)service::GiveAwayPrivileges();  // the service does its work with more as well

  wchar_t ofAnyName[] = L"";  // as the only one in its process
  const SERVICE_TABLE_ENTRYW services[] = {{ofAnyName, &service::ServiceMain}, {}};
  if (StartServiceCtrlDispatcherW(services) != FALSE) return EXIT_SUCCESS;
  (void)platform::WriteError(
      "talvorn-service is a Windows service: it keeps talvorn-locator.exe, which stands beside "
      "it, running. The service manager starts it; without it, start talvorn-locator.exe.\n");
  return EXIT_FAILURE;
}
