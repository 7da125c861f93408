#include "client/tool/views.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "client/tool/table.h"
#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "platform/settings_store.h"
#include "platform/text_encoding.h"
#include "support/byte_io.h"
#include "support/text_format.h"

namespace talvorn {
namespace {

constexpr std::size_t kPreviewBytes = 16;
constexpr std::size_t kPreviewColumns = 48;
constexpr std::size_t kShortDigest = 8;

bool IsPrintable(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x20 && byte != 0x7F;
}

std::string ValueText(const SettingInForce& setting) {
  if (const auto* const number = std::get_if<std::uint32_t>(&setting.value))
    return std::to_string(*number);
  return platform::WideToUtf8(std::get<std::u16string>(setting.value));
}

std::string_view SourceWord(SettingSource source) {
  switch (source) {
    case SettingSource::kDefault:
      return "default";
    case SettingSource::kStored:
      return "stored";
    case SettingSource::kUnusable:
      break;
  }
  return "unusable";
}

void SortByKey(std::vector<ViewRow>& rows) { std::ranges::stable_sort(rows, {}, &ViewRow::key); }

}  // namespace

std::string Counted(std::size_t count, std::string_view noun) {
  const std::string number = count == 0 ? "no" : std::to_string(count);
  return Concat({number, " ", noun, count == 1 ? "" : "s"});
}

std::string SerialText(std::uint32_t serial) {
  std::array<char, 16> text{};
  FormatTextA(text, "%07u", serial);
  return text.data();
}

std::string TextCell(std::string_view narrow) {
  return narrow.empty() ? "-" : EscapeForeign(narrow);
}

std::string AddressCell(const DeviceRecord& device) {
  const std::string_view ipv4 = device.deviceIpv4.view();
  const std::string_view ipv6 = device.deviceIpv6.view();
  if (ipv4.empty() || ipv6.empty()) return TextCell(ipv4.empty() ? ipv6 : ipv4);
  return Concat({EscapeForeign(ipv4), " ", EscapeForeign(ipv6)});
}

std::string ContentPreview(const DeviceItem& item) {
  std::string_view text = AsText(item.content());
  text = text.substr(0, text.find_last_not_of('\0') + 1);
  if (text.empty()) return "-";
  if (std::ranges::all_of(text, IsPrintable))
    return CutToWidth(EscapeForeign(text), kPreviewColumns);
  const auto first = item.content().first(std::min(item.content().size(), kPreviewBytes));
  return Concat({"0x", HexText(first), first.size() < item.content().size() ? "\u2026" : ""});
}

View ViewOfDevices(std::span<const DeviceRecord> devices) {
  View view{.title = Counted(devices.size(), "device"),
            .headings = {kDeviceColumns.begin(), kDeviceColumns.end()},
            .expendable = {"HOST", "CLIP", "STATUS"}};
  for (const DeviceRecord& device : devices) {
    view.rows.push_back({std::string(device.deviceSerial.view()),
                         {TextCell(device.deviceSerial.view()), TextCell(device.deviceAlias.view()),
                          TextCell(device.deviceStatus.view()), TextCell(device.deviceClip.view()),
                          AddressCell(device), TextCell(device.hostAlias.view())},
                         view.rows.size()});
  }
  SortByKey(view.rows);
  return view;
}

View ViewOfItems(std::span<const DeviceItem> items) {
  View view{.title = Counted(items.size(), "item"),
            .headings = {kItemColumns.begin(), kItemColumns.end()},
            .expendable = {"HEADER", "ITEM", "SIZE"}};
  for (const DeviceItem& item : items) {
    const std::string serial = SerialText(item.serial);
    const std::string header = HexText(item.header());
    const std::string digest = ItemDigest(item);
    view.rows.push_back({Concat({serial, header, digest}),
                         {serial, TextCell(digest.substr(0, kShortDigest)),
                          std::to_string(item.bytes.size()), ContentPreview(item), header},
                         view.rows.size()});
  }
  SortByKey(view.rows);
  return view;
}

View ViewOfSettings(const SettingList& settings) {
  View view{.title = {}, .headings = {"SETTING", "VALUE", "FROM"}};
  for (const SettingInForce& one : settings.known) {
    std::string name = platform::WideToUtf8(one.name);
    const std::string value = ValueText(one);
    std::string from(SourceWord(one.source));
    if (one.source == SettingSource::kUnusable) from = "default: what is stored has a wrong type";
    view.rows.push_back({name, {name, value.empty() ? "-" : EscapeForTerminal(value), from}});
  }
  for (const std::u16string& unknown : settings.unknown) {
    std::string name = platform::WideToUtf8(unknown);
    view.rows.push_back({name, {EscapeForTerminal(name), "-", "stored, but no setting"}});
  }
  return view;
}

std::string TableText(const View& view) {
  Table table(view.headings);
  for (const ViewRow& row : view.rows) table.AddRow(row.cells);
  return table.Text();
}

std::string DevicesJson(std::span<const DeviceRecord> devices) {
  JsonWriter json;
  json.BeginObject().Key("devices").BeginArray();
  for (const DeviceRecord& device : devices) WriteDevice(json, device);
  return json.EndArray().EndObject().text();
}

std::string ItemsJson(std::span<const DeviceItem> items) {
  JsonWriter json;
  json.BeginObject().Key("items").BeginArray();
  for (const DeviceItem& item : items) WriteItem(json, item);
  return json.EndArray().EndObject().text();
}

void WriteDevice(JsonWriter& json, const DeviceRecord& device) {
  json.BeginObject();
  json.Key("serial").ForeignString(device.deviceSerial.view());
  json.Key("alias").ForeignString(device.deviceAlias.view());
  json.Key("status").ForeignString(device.deviceStatus.view());
  json.Key("clip").ForeignString(device.deviceClip.view());
  json.Key("ipv4").ForeignString(device.deviceIpv4.view());
  json.Key("ipv6").ForeignString(device.deviceIpv6.view());
  json.Key("hostAlias").ForeignString(device.hostAlias.view());
  json.Key("hostIpv4").ForeignString(device.hostIpv4.view());
  json.Key("hostIpv6").ForeignString(device.hostIpv6.view());
  json.EndObject();
}

void WriteSettings(JsonWriter& json, const SettingList& settings) {
  json.Key("place").String(platform::SettingsPlace());
  json.Key("settings").BeginArray();
  for (const SettingInForce& one : settings.known) {
    json.BeginObject();
    json.Key("name").String(platform::WideToUtf8(one.name));
    json.Key("value");
    if (const auto* const number = std::get_if<std::uint32_t>(&one.value))
      json.Number(*number);
    else
      json.String(ValueText(one));
    json.Key("source").String(SourceWord(one.source));
    json.EndObject();
  }
  json.EndArray().Key("unknown").BeginArray();
  for (const std::u16string& name : settings.unknown) json.String(platform::WideToUtf8(name));
  json.EndArray();
}

void WriteItem(JsonWriter& json, const DeviceItem& item) {
  json.BeginObject();
  json.Key("serial").String(SerialText(item.serial));
  json.Key("digest").String(ItemDigest(item));
  json.Key("hashLength").Number(item.hashLength);
  json.Key("header").String(HexText(item.header()));
  json.Key("nextOffset").Number(item.nextOffset);
  json.Key("content").String(HexText(item.content()));
  json.EndObject();
}

std::string TimeText(FileTime local) {
  const TimeOfDay time = ToTimeOfDay(local);
  std::array<char, 16> text{};
  FormatTextA(text, "%02u:%02u:%02u", time.hour, time.minute, time.second);
  return text.data();
}

std::string TimestampText(FileTime utc) {
  using namespace std::chrono;
  const auto days1601 = static_cast<int>(utc / platform::kFileTimePerSecond / 86'400);
  const year_month_day date{sys_days{year{1601} / January / 1} + days{days1601}};
  const auto ms =
      static_cast<std::uint32_t>(utc % platform::kFileTimePerSecond / platform::kFileTimePerMs);
  std::array<char, 32> text{};
  FormatTextA(text, "%04d-%02u-%02uT%s.%03uZ", static_cast<int>(date.year()),
              static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), TimeText(utc),
              ms);
  return text.data();
}

}  // namespace talvorn
