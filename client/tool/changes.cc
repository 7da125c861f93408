#include "client/tool/changes.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <tuple>

#include "client/tool/json_writer.h"
#include "client/tool/views.h"
#include "command_line/concat.h"
#include "support/byte_io.h"

namespace talvorn {
namespace {

struct KindName {
  std::string_view text;   // in a line for people
  std::string_view event;  // in a document for programs
};

KindName NameOf(ChangeKind kind) {
  switch (kind) {
    case ChangeKind::kDeviceAppeared:
      return {"device appeared", "device-appeared"};
    case ChangeKind::kDeviceChanged:
      return {"device changed", "device-changed"};
    case ChangeKind::kDeviceGone:
      return {"device gone", "device-gone"};
    case ChangeKind::kItemNew:
      return {"item new", "item-new"};
    case ChangeKind::kItemChanged:
      return {"item changed", "item-changed"};
    case ChangeKind::kItemGone:
      return {"item gone", "item-gone"};
    case ChangeKind::kItemExpired:
      break;
  }
  return {"item expired", "item-expired"};
}

bool IsAboutDevice(ChangeKind kind) {
  return kind == ChangeKind::kDeviceAppeared || kind == ChangeKind::kDeviceChanged ||
         kind == ChangeKind::kDeviceGone;
}

struct Field {
  std::string_view name;  // in a line for people
  std::string_view key;   // in a document for programs
  std::string_view value;
};

// What of a device can change.
std::array<Field, 8> FieldsOf(const DeviceRecord& device) {
  return {{{"alias", "alias", device.deviceAlias.view()},
           {"status", "status", device.deviceStatus.view()},
           {"clip", "clip", device.deviceClip.view()},
           {"IPv4 address", "ipv4", device.deviceIpv4.view()},
           {"IPv6 address", "ipv6", device.deviceIpv6.view()},
           {"host", "hostAlias", device.hostAlias.view()},
           {"host's IPv4 address", "hostIpv4", device.hostIpv4.view()},
           {"host's IPv6 address", "hostIpv6", device.hostIpv6.view()}}};
}

// The fields that differ, as they were and as they are.
std::vector<std::pair<Field, Field>> Differences(const DeviceRecord& before,
                                                 const DeviceRecord& after) {
  const auto old = FieldsOf(before);
  const auto now = FieldsOf(after);
  std::vector<std::pair<Field, Field>> differences;
  for (std::size_t i = 0; i < old.size(); ++i)
    if (old[i].value != now[i].value) differences.emplace_back(old[i], now[i]);
  return differences;
}

// "status IDLE -> RUN, clip A1 -> B2"
std::string DifferencesText(const DeviceRecord& before, const DeviceRecord& after) {
  std::string text;
  for (const auto& [old, now] : Differences(before, after)) {
    if (!text.empty()) text.append(", ");
    text.append(now.name).append(" ").append(TextCell(old.value));
    text.append(" -> ").append(TextCell(now.value));
  }
  return text;
}

std::string DetailOf(const Change& change) {
  if (change.kind == ChangeKind::kDeviceChanged)
    return DifferencesText(change.before, change.device);
  if (IsAboutDevice(change.kind)) {
    return Concat({TextCell(change.device.deviceAlias.view()), "  ",
                   TextCell(change.device.deviceStatus.view()), "  ", AddressCell(change.device)});
  }
  return Concat({ItemDigest(change.item).substr(0, 8), "  ",
                 std::to_string(change.item.bytes.size()), " bytes  ",
                 ContentPreview(change.item)});
}

void BeginEvent(JsonWriter& json, std::string_view event, FileTime utc) {
  json.BeginObject();
  json.Key("time").String(TimestampText(utc));
  json.Key("event").String(event);
}

// A header of zeros says nothing about which item it is.
bool HasHeader(const DeviceItem& item) {
  return std::ranges::any_of(item.header(), [](std::byte byte) { return byte != std::byte{0}; });
}

}  // namespace

std::vector<Change> ChangeTracker::UpdateDevices(std::span<const DeviceRecord> devices) {
  std::map<std::string, DeviceRecord> now;
  for (const DeviceRecord& device : devices)
    now.insert_or_assign(std::string(device.deviceSerial.view()), device);

  std::vector<Change> changes;
  for (const auto& [serial, device] : now) {
    const auto known = devices_.find(serial);
    if (known == devices_.end()) {
      changes.push_back({.kind = ChangeKind::kDeviceAppeared, .device = device});
    } else if (!Differences(known->second, device).empty()) {
      changes.push_back(
          {.kind = ChangeKind::kDeviceChanged, .device = device, .before = known->second});
    }
  }
  for (const auto& [serial, device] : devices_) {
    if (!now.contains(serial))
      changes.push_back({.kind = ChangeKind::kDeviceGone, .device = device});
  }
  std::ranges::stable_sort(changes, {},
                           [](const Change& change) { return change.device.deviceSerial.view(); });
  devices_ = std::move(now);
  return changes;
}

std::vector<Change> ChangeTracker::UpdateItems(std::span<const DeviceItem> items) {
  std::map<ItemKey, DeviceItem> now;
  for (const DeviceItem& item : items) {
    now.insert_or_assign(
        {{item.serial, std::string(AsText(item.header()))}, std::string(AsText(item.identity()))},
        item);
  }
  // Whether an item with the same header is among `all`.
  const auto isIn = [](const std::map<ItemKey, DeviceItem>& all, const ItemKey& key,
                       const DeviceItem& item) {
    const auto first = all.lower_bound({key.first, {}});
    return HasHeader(item) && first != all.end() && first->first.first == key.first;
  };

  std::vector<Change> changes;
  for (const auto& [key, item] : now) {
    if (items_.contains(key)) continue;
    const bool changed = isIn(items_, key, item);
    changes.push_back(
        {.kind = changed ? ChangeKind::kItemChanged : ChangeKind::kItemNew, .item = item});
  }
  for (const auto& [key, item] : items_) {
    if (now.contains(key)) continue;
    const bool replaced = isIn(now, key, item);
    changes.push_back(
        {.kind = replaced ? ChangeKind::kItemExpired : ChangeKind::kItemGone, .item = item});
  }
  std::ranges::stable_sort(changes, {}, [](const Change& change) { return change.item.serial; });
  items_ = std::move(now);
  return changes;
}

std::string ChangeLine(const Change& change, FileTime local) {
  constexpr std::size_t kKindWidth = 15;
  constexpr std::size_t kSerialWidth = 7;
  std::string kind(NameOf(change.kind).text);
  kind.resize(kKindWidth, ' ');
  std::string serial = IsAboutDevice(change.kind) ? TextCell(change.device.deviceSerial.view())
                                                  : SerialText(change.item.serial);
  serial.resize(std::max(serial.size(), kSerialWidth), ' ');
  return Concat({TimeText(local), "  ", kind, "  ", serial, "  ", DetailOf(change)});
}

std::string LocatorJson(bool answers, FileTime utc) {
  JsonWriter json;
  BeginEvent(json, answers ? "locator-found" : "locator-lost", utc);
  return json.EndObject().text();
}

std::string ChangeJson(const Change& change, FileTime utc) {
  JsonWriter json;
  BeginEvent(json, NameOf(change.kind).event, utc);
  if (IsAboutDevice(change.kind)) {
    json.Key("device");
    WriteDevice(json, change.device);
    if (change.kind == ChangeKind::kDeviceChanged) {
      json.Key("before");
      WriteDevice(json, change.before);
      json.Key("changed").BeginArray();
      for (const auto& [old, now] : Differences(change.before, change.device)) json.String(now.key);
      json.EndArray();
    }
  } else {
    json.Key("item");
    WriteItem(json, change.item);
  }
  return json.EndObject().text();
}

}  // namespace talvorn
