#include "library/lists.h"

#include <span>
#include <string_view>
#include <utility>

#include "client/item_digest.h"
#include "library/sized_structure.h"
#include "platform/foreign_text.h"
#include "platform/text_encoding.h"

namespace talvorn {
namespace {

const std::uint8_t* Octets(std::span<const std::byte> bytes) {
  return reinterpret_cast<const std::uint8_t*>(bytes.data());
}

template <class List, class Structure>
talvorn_status Get(const List* list, const std::vector<Structure> List::*members, std::size_t index,
                   Structure* out) {
  if (list == nullptr || index >= (list->*members).size()) return TALVORN_BAD_ARGUMENT;
  return Fill(out, (list->*members)[index]);
}

}  // namespace

std::unique_ptr<talvorn_device_list> ListOf(std::vector<DeviceRecord> devices) {
  auto list = std::make_unique<talvorn_device_list>();
  const auto text = [&](std::string_view narrow) {
    if (narrow.empty()) return "";
    return list->texts.emplace_back(platform::WideToUtf8(platform::ForeignToWide(narrow))).c_str();
  };
  list->devices.reserve(devices.size());
  for (const DeviceRecord& device : devices) {
    list->devices.push_back({.size = sizeof(talvorn_device),
                             .serial = text(device.deviceSerial.view()),
                             .alias = text(device.deviceAlias.view()),
                             .status = text(device.deviceStatus.view()),
                             .clip = text(device.deviceClip.view()),
                             .ipv4 = text(device.deviceIpv4.view()),
                             .ipv6 = text(device.deviceIpv6.view()),
                             .host_alias = text(device.hostAlias.view()),
                             .host_ipv4 = text(device.hostIpv4.view()),
                             .host_ipv6 = text(device.hostIpv6.view()),
                             .number = device.numericSerial()});
  }
  return list;
}

std::unique_ptr<talvorn_item_list> ListOf(std::vector<DeviceItem> items) {
  auto list = std::make_unique<talvorn_item_list>();
  list->received = std::move(items);
  list->items.reserve(list->received.size());
  for (const DeviceItem& item : list->received) {
    list->items.push_back({.size = sizeof(talvorn_item),
                           .digest = list->texts.emplace_back(ItemDigest(item)).c_str(),
                           .header = Octets(item.header()),
                           .content = Octets(item.content()),
                           .content_size = item.content().size(),
                           .bytes = Octets(item.bytes),
                           .bytes_size = item.bytes.size(),
                           .device = item.serial,
                           .hash_length = item.hashLength,
                           .next_offset = item.nextOffset});
  }
  return list;
}

}  // namespace talvorn

size_t talvorn_device_list_size(const talvorn_device_list* devices) {
  return devices == nullptr ? 0 : devices->devices.size();
}

talvorn_status talvorn_device_list_get(const talvorn_device_list* devices, size_t index,
                                       talvorn_device* device) {
  return talvorn::Get(devices, &talvorn_device_list::devices, index, device);
}

void talvorn_device_list_free(talvorn_device_list* devices) { delete devices; }

size_t talvorn_item_list_size(const talvorn_item_list* items) {
  return items == nullptr ? 0 : items->items.size();
}

talvorn_status talvorn_item_list_get(const talvorn_item_list* items, size_t index,
                                     talvorn_item* item) {
  return talvorn::Get(items, &talvorn_item_list::items, index, item);
}

void talvorn_item_list_free(talvorn_item_list* items) { delete items; }
