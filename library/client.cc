#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "client/locator_client.h"
#include "client/reinitialisation.h"
#include "library/lists.h"
#include "library/sized_structure.h"
#include "library/status.h"
#include "platform/event.h"
#include "platform/foreign_text.h"
#include "platform/mailslot_name.h"
#include "platform/text_encoding.h"
#include "talvorn/talvorn.h"

using namespace talvorn;
using platform::Event;

struct talvorn_client {
  Event interrupt = Event::Create(Event::Mode::kManualReset);
  LocatorClient locator;
  std::string text{};  // of the last answer

  explicit talvorn_client(ClientOptions options)
      : locator((options.interrupt = &interrupt, options)) {}

  // The status of a request; an interrupt has done its work then.
  talvorn_status Ended(ClientStatus status) {
    if (status == ClientStatus::kInterrupted) (void)interrupt.Reset();
    return StatusOf(status);
  }
};

namespace {

using TextRequest = Answer<std::string> (LocatorClient::*)();

talvorn_status AskText(talvorn_client* client, TextRequest request, const char** text) {
  if (client == nullptr || text == nullptr) return TALVORN_BAD_ARGUMENT;
  return Guarded([&] {
    auto answer = (client->locator.*request)();
    if (answer) {
      client->text = std::move(answer.value);
      *text = client->text.c_str();
    }
    return client->Ended(answer.status);
  });
}

template <class Request, class List>
talvorn_status AskList(talvorn_client* client, Request request, List** list) {
  if (client == nullptr || list == nullptr) return TALVORN_BAD_ARGUMENT;
  return Guarded([&] {
    auto answer = (client->locator.*request)();
    if (answer) *list = ListOf(std::move(answer.value)).release();
    return client->Ended(answer.status);
  });
}

template <class Request>
talvorn_status Tell(talvorn_client* client, Request request) {
  if (client == nullptr) return TALVORN_BAD_ARGUMENT;
  return Guarded([&] { return client->Ended(request(client->locator)); });
}

talvorn_status StatusOf(ReinitialisationStatus status) {
  switch (status) {
    case ReinitialisationStatus::kDone:
      return TALVORN_OK;
    case ReinitialisationStatus::kPending:
      return TALVORN_PENDING;
    case ReinitialisationStatus::kNotAsked:
      return TALVORN_NOT_ASKED;
    case ReinitialisationStatus::kNoAddress:
      return TALVORN_BAD_ARGUMENT;
    case ReinitialisationStatus::kNotWritten:
      return TALVORN_NOT_WRITTEN;
  }
  return TALVORN_NO_RESOURCES;
}

talvorn_status Reinitialisation(ReinitialisationStatus (*call)(std::string_view),
                                const char* ipv4) {
  if (ipv4 == nullptr) return TALVORN_BAD_ARGUMENT;
  return Guarded([&] { return StatusOf(call(ipv4)); });
}

}  // namespace

talvorn_status talvorn_client_open(const talvorn_client_options* options, talvorn_client** client) {
  if (client == nullptr) return TALVORN_BAD_ARGUMENT;
  return Guarded([&]() -> talvorn_status {
    talvorn_client_options given;
    if (const talvorn_status status = TakeOptions(options, given); status != TALVORN_OK)
      return status;
    if (!platform::CodePageObstacle().empty()) return TALVORN_BAD_ARGUMENT;
    ClientOptions own;
    if (given.timeout_ms != 0) own.timeoutMs = given.timeout_ms;
    if (given.reply_mailslot != nullptr) {
      own.replyMailslot = platform::Utf8ToWide(given.reply_mailslot);
      if (!platform::IsMailslotName(own.replyMailslot)) return TALVORN_BAD_ARGUMENT;
    }
    auto made = std::make_unique<talvorn_client>(std::move(own));
    if (!made->interrupt.valid()) return TALVORN_NO_RESOURCES;
    *client = made.release();
    return TALVORN_OK;
  });
}

void talvorn_client_close(talvorn_client* client) { delete client; }

void talvorn_client_interrupt(talvorn_client* client) {
  if (client != nullptr) (void)client->interrupt.Set();
}

talvorn_status talvorn_client_get_version(talvorn_client* client, const char** version) {
  return AskText(client, &LocatorClient::GetVersion, version);
}

talvorn_status talvorn_client_get_log_path(talvorn_client* client, const char** path) {
  return AskText(client, &LocatorClient::GetLogPath, path);
}

talvorn_status talvorn_client_set_log_path(talvorn_client* client, const char* path) {
  return Tell(client, [path](LocatorClient& locator) {
    return path == nullptr ? locator.ResetLogPath() : locator.SetLogPath(path);
  });
}

talvorn_status talvorn_client_start_log(talvorn_client* client) {
  return Tell(client, [](LocatorClient& locator) { return locator.StartLog(); });
}

talvorn_status talvorn_client_stop_log(talvorn_client* client) {
  return Tell(client, [](LocatorClient& locator) { return locator.StopLog(); });
}

talvorn_status talvorn_client_get_devices(talvorn_client* client, talvorn_device_list** devices) {
  return AskList(client, &LocatorClient::GetDevices, devices);
}

talvorn_status talvorn_client_get_items(talvorn_client* client, talvorn_item_list** items) {
  return AskList(client, &LocatorClient::GetItems, items);
}

talvorn_status talvorn_reinitialisation_request(const char* ipv4) {
  return Reinitialisation(RequestReinitialisation, ipv4);
}

talvorn_status talvorn_reinitialisation_query(const char* ipv4) {
  return Reinitialisation(QueryReinitialisation, ipv4);
}
