#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/byte_io.h"
#include "tool/json_writer.h"
#include "tool/live_screen.h"
#include "tool/row_history.h"
#include "tool/table.h"
#include "tool/views.h"

namespace talvorn {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

DeviceRecord Device(std::string_view serial, std::string_view alias = "",
                    std::string_view ipv4 = "", std::string_view ipv6 = "") {
  DeviceRecord device;
  device.deviceSerial.Assign(serial);
  device.deviceAlias.Assign(alias);
  device.deviceIpv4.Assign(ipv4);
  device.deviceIpv6.Assign(ipv6);
  return device;
}

DeviceItem Item(std::uint32_t serial, std::string_view content) {
  DeviceItem item{.serial = serial, .hashLength = 24, .nextOffset = 0, .bytes = {}};
  item.bytes.resize(24 + content.size());
  std::ranges::copy(AsBytes(content), item.bytes.begin() + 24);
  item.bytes[4] = std::byte{0xAB};
  return item;
}

TEST(Table, ColumnsAreAsWideAsTheirCells) {
  Table table({"A", "LONG", "C"});
  table.AddRow({"1", "x", "last"});
  table.AddRow({"\u00FC\u65E5", "", ""});
  table.AddRow({"z"});
  EXPECT_THAT(table.Lines(), ElementsAre("A    LONG  C", "1    x     last", "\u00FC\u65E5", "z"));
}

TEST(JsonWriter, SeparatesAndEscapes) {
  JsonWriter json;
  json.BeginObject();
  json.Key("list").BeginArray().Number(1).BeginObject().EndObject().BeginArray().EndArray();
  json.EndArray();
  json.Key("text").String("a\"b\\c\n\t\x1b\x7f\u0085\u202E\U000E0041\U0001F600\u00FC/");
  json.Key("narrow").NarrowString("\x80\x81\xFC");
  json.Key("ill-formed").String("\xC3");
  json.EndObject();
  EXPECT_EQ(json.text(), R"({"list":[1,{},[]],)"
                         R"("text":"a\"b\\c\u000a\u0009\u001b\u007f\u0085\u202e\udb40\udc41)"
                         "\U0001F600\u00FC/\","
                         "\"narrow\":\"\u20AC\\u0081\u00FC\",\"ill-formed\":\"\uFFFD\"}");
}

TEST(Views, DevicesForPeopleAndPrograms) {
  const std::vector<DeviceRecord> devices = {Device("200", "\x1b]0;evil\x07", "10.0.0.1", ""),
                                             Device("1000",
                                                    "Pr\xFC"
                                                    "fstand",
                                                    "10.0.0.2", "fe80::1")};
  const View view = ViewOfDevices(devices);
  EXPECT_EQ(view.title, "2 devices");
  ASSERT_EQ(view.rows.size(), 2u);
  EXPECT_THAT(view.rows[0].cells,
              ElementsAre("1000", "Pr\u00FCfstand", "-", "-", "10.0.0.2 fe80::1", "-"));
  EXPECT_THAT(view.rows[1].cells,
              ElementsAre("200", "\\x1b]0;evil\\x07", "-", "-", "10.0.0.1", "-"));
  EXPECT_EQ(DevicesJson(std::span(devices).first(1)),
            R"({"devices":[{"serial":"200","alias":"\u001b]0;evil\u0007","status":"","clip":"",)"
            R"("ipv4":"10.0.0.1","ipv6":"","hostAlias":"","hostIpv4":"","hostIpv6":""}]})");
  EXPECT_EQ(DevicesJson({}), R"({"devices":[]})");
  EXPECT_EQ(Counted(0, "item"), "no items");
  EXPECT_EQ(Counted(1, "item"), "1 item");
}

TEST(Views, ItemsShowWhatTheyHold) {
  EXPECT_EQ(ContentPreview(Item(1, "")), "-");
  EXPECT_EQ(ContentPreview(Item(1, std::string("21.4 \xB0"
                                               "C\0\0",
                                               9))),
            "21.4 \u00B0C");
  EXPECT_EQ(ContentPreview(Item(1, "a\x1b[b")), "0x611b5b62");
  EXPECT_EQ(ContentPreview(Item(1, std::string(17, '\x01'))),
            "0x01010101010101010101010101010101\u2026");

  const std::vector<DeviceItem> items = {Item(7, "ab")};
  const View view = ViewOfItems(items);
  // SHA-1 of 00000000 ab 19 zero bytes.
  const std::string digest = ItemDigest(items[0]);
  EXPECT_EQ(digest.size(), 40u);
  EXPECT_THAT(view.rows.front().cells,
              ElementsAre("0000007", digest.substr(0, 8), "26", "ab", "ab0000000000000000000000"));
  EXPECT_EQ(ItemsJson(items), R"({"items":[{"serial":"0000007","digest":")" + digest +
                                  R"(","hashLength":24,"header":"ab0000000000000000000000",)"
                                  R"("nextOffset":0,"content":"6162"}]})");
}

TEST(Views, Times) {
  // 2026-11-17 15:00:00.250 as a file time.
  const FileTime time = (1'794'927'600ULL + 11'644'473'600ULL) * 10'000'000 + 2'500'000;
  EXPECT_EQ(TimeText(time), "15:00:00");
  EXPECT_EQ(TimestampText(time), "2026-11-17T15:00:00.250Z");
  EXPECT_EQ(TimestampText(0), "1601-01-01T00:00:00.000Z");
}

TEST(RowHistory, MarksForAWhile) {
  RowHistory history(1'000);
  const auto update = [&history](std::vector<ViewRow> rows, std::uint64_t now) {
    std::string text;
    for (const MarkedRow& row : history.Update(rows, now)) {
      text.append(1, " +*-"[static_cast<int>(row.mark)]).append(row.cells[0]);
    }
    return text;
  };
  EXPECT_EQ(update({{"1", {"a"}}, {"3", {"c"}}}, 0), " a c");  // nothing is new at first
  EXPECT_EQ(update({{"1", {"a"}}, {"2", {"b"}}, {"3", {"C"}}}, 100), " a+b*C");
  EXPECT_EQ(update({{"2", {"b"}}, {"3", {"C"}}}, 600), "-a+b*C");
  EXPECT_EQ(update({{"2", {"b"}}, {"3", {"C"}}}, 1'100), "-a b C");
  EXPECT_EQ(update({{"1", {"a"}}, {"2", {"b"}}}, 1'500), "+a b-C");  // back while shown as gone
  EXPECT_EQ(update({{"1", {"a"}}, {"2", {"b"}}}, 2'499), "+a b-C");
  EXPECT_EQ(update({{"1", {"a"}}, {"2", {"b"}}}, 2'500), " a b");
  EXPECT_EQ(update({}, 9'000), "-a-b");
  EXPECT_EQ(update({}, 10'000), "");
}

TEST(LiveScreen, APageFillsTheTerminalAndNoMore) {
  const std::vector<ScreenLine> lines = {
      {"header", LineStyle::kStrong}, {"12345678901"}, {"new", LineStyle::kGood}, {"last"}};
  EXPECT_EQ(ComposePage(lines, {11, 4}, true),
            "\x1b[H\x1b[1mheader\x1b[0m\x1b[K\r\n123456789\u2026\x1b[K\r\n"
            "\x1b[32mnew\x1b[0m\x1b[K\r\nlast\x1b[K\x1b[J");
  EXPECT_EQ(ComposePage(lines, {20, 3}, false),
            "\x1b[Hheader\x1b[K\r\n12345678901\x1b[K\r\n... and 2 more\x1b[K\x1b[J");
  for (const std::uint32_t rows : {0u, 1u, 2u, 3u, 4u, 5u}) {
    const std::string page = ComposePage(lines, {20, rows}, true);
    const auto breaks = std::count(page.begin(), page.end(), '\n');
    EXPECT_EQ(breaks, std::max(std::min<std::int64_t>(rows, 4), std::int64_t{1}) - 1) << rows;
  }
  // What was switched off is switched on again.
  EXPECT_THAT(EnterScreen(), HasSubstr("\x1b[?25l"));
  EXPECT_THAT(LeaveScreen(), HasSubstr("\x1b[?25h"));
  EXPECT_THAT(EnterScreen(), HasSubstr("\x1b[?7l"));
  EXPECT_THAT(LeaveScreen(), HasSubstr("\x1b[?7h"));
}

}  // namespace
}  // namespace talvorn
