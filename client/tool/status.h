// The locator and its surroundings as they can be seen from outside, at one moment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/doctor/examined_interface.h"
#include "client/locator_client.h"
#include "client/tool/json_writer.h"
#include "platform/process_list.h"
#include "support/setting_list.h"

namespace talvorn {

struct Status {
  ClientStatus answered = ClientStatus::kOk;
  std::string version{};  // UTF-8
  std::size_t devices = 0;
  std::size_t items = 0;
  std::vector<platform::RunningProgram> processes{};
  std::vector<ExaminedInterface> interfaces{};
  std::optional<std::uint64_t> drops{};  // none: the system does not tell
  SettingList settings{};
  // By the interface's name; empty when nobody has listened.
  std::map<std::string, HeardOnInterface> heard{};
  std::string lastRequest{};  // as reported; empty when no log tells
  std::string lastAnswer{};
};

// Asks the locator and looks at the machine; listens to the network for `listenMs`.
[[nodiscard]] Status TakeStatus(const ClientOptions& options, std::uint32_t listenMs);

// Several lines for people.
[[nodiscard]] std::string StatusText(const Status& status);

// One object.
void WriteStatus(JsonWriter& json, const Status& status);

}  // namespace talvorn
