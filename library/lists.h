// The lists that the library hands out: records and their texts, made once.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "client/replies.h"
#include "devices/device_record.h"
#include "talvorn/talvorn.h"

struct talvorn_device_list {
  std::deque<std::string> texts{};  // UTF-8, where `devices` point to
  std::vector<talvorn_device> devices{};
};

struct talvorn_item_list {
  std::vector<talvorn::DeviceItem> received{};  // where `items` point to
  std::deque<std::string> texts{};
  std::vector<talvorn_item> items{};
};

namespace talvorn {

[[nodiscard]] std::unique_ptr<talvorn_device_list> ListOf(std::vector<DeviceRecord> devices);
[[nodiscard]] std::unique_ptr<talvorn_item_list> ListOf(std::vector<DeviceItem> items);

}  // namespace talvorn
