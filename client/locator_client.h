// Asks the locator on this machine. An object is used by one thread; any number of
// objects and programs may ask at the same time. On Linux only what the locator's account
// has written counts as an answer; that others write is said once on standard error.
//
//   #include <cstdio>
//   #include <string>
//   #include "client/locator_client.h"
//
//   int main() {
//     talvorn::LocatorClient client;
//     const auto devices = client.GetDevices();
//     if (!devices) return 1;  // devices.status says why
//     for (const talvorn::DeviceRecord& device : devices.value)
//       std::puts(std::string(device.deviceSerial.view()).c_str());
//   }
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/replies.h"
#include "devices/device_record.h"
#include "platform/event.h"
#include "platform/mailslot.h"
#include "platform/waitable.h"

namespace talvorn {

// What runs on this machine to answer.
inline constexpr std::string_view kLocatorProgram = "talvorn-locator";

enum class ClientStatus {
  kOk,
  kNoLocator,    // none runs on this machine, or none that this program can reach
  kNoAnswer,     // one was there, but has not answered in time
  kBadReply,     // what came in time was no well-formed reply
  kNoMailslot,   // a mailslot for the reply cannot be made
  kBadRequest,   // the text is too long, or has characters that the locator cannot keep
  kInterrupted,  // by the interrupt given in the options
};

// "the locator does not answer": what has happened, without a full stop.
[[nodiscard]] const char* StatusText(ClientStatus status);

template <class T>
struct Answer {
  ClientStatus status = ClientStatus::kNoAnswer;
  T value{};

  explicit operator bool() const { return status == ClientStatus::kOk; }
};

struct ClientOptions {
  std::uint32_t timeoutMs = 3'000;                // of one request
  const platform::Waitable* interrupt = nullptr;  // ends a wait; must outlive the client
  std::u16string replyMailslot{};  // for one client at a time; empty: a name that is its own
};

class LocatorClient {
 public:
  explicit LocatorClient(const ClientOptions& options = {});

  // Version of the locator, UTF-8.
  [[nodiscard]] Answer<std::string> GetVersion();
  // One record for each device, in ascending order of their serials as texts. Texts of
  // records are in the narrow code page (platform/text_encoding.h).
  [[nodiscard]] Answer<std::vector<DeviceRecord>> GetDevices();
  // Newest first.
  [[nodiscard]] Answer<std::vector<DeviceItem>> GetItems();

  // The directory for the logs of client programs, UTF-8, with its separator at the
  // end. The locator keeps it in memory only, and writes no log itself.
  [[nodiscard]] Answer<std::string> GetLogPath();
  // Each of these returns once the locator has done it.
  [[nodiscard]] ClientStatus SetLogPath(std::string_view path);  // UTF-8, not empty
  [[nodiscard]] ClientStatus ResetLogPath();                     // the temporary directory
  [[nodiscard]] ClientStatus StartLog();
  [[nodiscard]] ClientStatus StopLog();

 private:
  // Returns whether a reply of the expected type is well-formed, and keeps it if so.
  using Accept = std::function<bool(std::span<const std::byte> reply)>;

  [[nodiscard]] ClientStatus Ask(std::string_view command, ReplyType type, const Accept& accept);
  [[nodiscard]] ClientStatus Tell(std::string_view command);
  [[nodiscard]] Answer<std::string> AskText(std::string_view command, ReplyType type);

  [[nodiscard]] bool PrepareMailslot(std::uint64_t deadlineMs);
  [[nodiscard]] ClientStatus Send(std::string_view command, std::uint64_t deadlineMs);
  [[nodiscard]] ClientStatus AwaitReply(ReplyType type, const Accept& accept,
                                        std::uint64_t deadlineMs);
  [[nodiscard]] bool Interrupted() const;

  ClientOptions options_;
  platform::Event never_;  // stands in for a missing interrupt
  std::u16string mailslotName_;
  platform::Mailslot mailslot_;
};

}  // namespace talvorn
