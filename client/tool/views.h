// Devices, items and settings as the tool shows them, to people and to programs.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/item_digest.h"
#include "client/replies.h"
#include "client/tool/json_writer.h"
#include "devices/device_record.h"
#include "support/file_time.h"
#include "support/setting_list.h"

namespace talvorn {

// A row of a table, under a key that stays the same as long as it is about the same
// device or item. Keys sort as rows are to stand.
struct ViewRow {
  std::string key;
  std::vector<std::string> cells;  // safe for a terminal
  std::size_t source = 0;          // which of the records it shows

  bool operator==(const ViewRow&) const = default;
};

struct View {
  std::string title{};  // "12 devices"
  std::vector<std::string> headings{};
  std::vector<std::string_view> expendable{};  // headings that a narrow terminal does without
  std::vector<ViewRow> rows{};                 // sorted by key
};

inline constexpr std::array<std::string_view, 6> kDeviceColumns = {"SERIAL", "ALIAS",   "STATUS",
                                                                   "CLIP",   "ADDRESS", "HOST"};
inline constexpr std::array<std::string_view, 5> kItemColumns = {"SERIAL", "ITEM", "SIZE",
                                                                 "CONTENT", "HEADER"};

[[nodiscard]] View ViewOfDevices(std::span<const DeviceRecord> devices);
[[nodiscard]] View ViewOfItems(std::span<const DeviceItem> items);

[[nodiscard]] View ViewOfSettings(const SettingList& settings);

// Headings and rows, aligned.
[[nodiscard]] std::string TableText(const View& view);

// One line each.
[[nodiscard]] std::string DevicesJson(std::span<const DeviceRecord> devices);
[[nodiscard]] std::string ItemsJson(std::span<const DeviceItem> items);

// "12 devices", "1 device", "no devices".
[[nodiscard]] std::string Counted(std::size_t count, std::string_view noun);

// The address or addresses, "-" when there is none.
[[nodiscard]] std::string AddressCell(const DeviceRecord& device);
// A text of a device, "-" when it is empty.
[[nodiscard]] std::string TextCell(std::string_view narrow);

// The content as quoted text where it is one, else its first bytes.
[[nodiscard]] std::string ContentPreview(const DeviceItem& item);

// The serial as devices write it, seven digits at least.
[[nodiscard]] std::string SerialText(std::uint32_t serial);

void WriteDevice(JsonWriter& json, const DeviceRecord& device);
// The members of an object: "place", "settings", "unknown".
void WriteSettings(JsonWriter& json, const SettingList& settings);
void WriteItem(JsonWriter& json, const DeviceItem& item);

[[nodiscard]] std::string TimeText(FileTime local);     // "14:03:07"
[[nodiscard]] std::string TimestampText(FileTime utc);  // "2026-11-22T14:03:07.250Z"

}  // namespace talvorn
