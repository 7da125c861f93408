#include "library/status.h"

#include "version.h"

namespace talvorn {

talvorn_status StatusOf(ClientStatus status) {
  switch (status) {
    case ClientStatus::kOk:
      return TALVORN_OK;
    case ClientStatus::kNoLocator:
      return TALVORN_NO_LOCATOR;
    case ClientStatus::kNoAnswer:
      return TALVORN_NO_ANSWER;
    case ClientStatus::kBadReply:
      return TALVORN_BAD_REPLY;
    case ClientStatus::kNoMailslot:
      return TALVORN_NO_MAILSLOT;
    case ClientStatus::kBadRequest:
      return TALVORN_BAD_REQUEST;
    case ClientStatus::kInterrupted:
      return TALVORN_INTERRUPTED;
  }
  return TALVORN_NO_RESOURCES;
}

}  // namespace talvorn

using talvorn::ClientStatus;
using talvorn::StatusText;

const char* talvorn_status_text(talvorn_status status) {
  switch (status) {
    case TALVORN_OK:
      return StatusText(ClientStatus::kOk);
    case TALVORN_NO_LOCATOR:
      return StatusText(ClientStatus::kNoLocator);
    case TALVORN_NO_ANSWER:
      return StatusText(ClientStatus::kNoAnswer);
    case TALVORN_BAD_REPLY:
      return StatusText(ClientStatus::kBadReply);
    case TALVORN_NO_MAILSLOT:
      return StatusText(ClientStatus::kNoMailslot);
    case TALVORN_BAD_REQUEST:
      return StatusText(ClientStatus::kBadRequest);
    case TALVORN_INTERRUPTED:
      return StatusText(ClientStatus::kInterrupted);
    case TALVORN_TIMEOUT:
      return "nothing has changed in this time";
    case TALVORN_PENDING:
      return "it is asked for, but not done yet";
    case TALVORN_NOT_ASKED:
      return "nobody has asked for it, or the settings cannot be read";
    case TALVORN_NOT_WRITTEN:
      return "this account may not write the locator's settings";
    case TALVORN_NO_OBJECT:
      return "the locator cannot be told that this program needs it";
    case TALVORN_BAD_ARGUMENT:
      return "the program has called the library with what cannot be";
    case TALVORN_NOT_SUPPORTED:
      return "this version of the library cannot do that";
    case TALVORN_NO_RESOURCES:
      return "the system has no memory, thread or descriptor left";
    default:
      return "something that this version of the library does not know";
  }
}

const char* talvorn_library_version() { return talvorn::kVersion.data(); }
