#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/byte_io.h"
#include "tool/json_writer.h"
#include "tool/live_screen.h"
#include "tool/views.h"

namespace talvorn {
namespace {

using ::testing::ElementsAre;

DeviceItem Item(std::uint32_t serial, std::string_view content) {
  DeviceItem item{.serial = serial, .hashLength = 24, .nextOffset = 0, .bytes = {}};
  item.bytes.resize(24 + content.size());
  std::ranges::copy(AsBytes(content), item.bytes.begin() + 24);
  item.bytes[4] = std::byte{0xAB};
  return item;
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
  const std::string digest = ItemDigest(items[0]);
  EXPECT_THAT(ViewOfItems(items).rows.front().cells,
              ElementsAre("0000007", digest.substr(0, 8), "26", "ab", "ab0000000000000000000000"));
  EXPECT_EQ(ItemsJson(items), R"({"items":[{"serial":"0000007","digest":")" + digest +
                                  R"(","hashLength":24,"header":"ab0000000000000000000000",)"
                                  R"("nextOffset":0,"content":"6162"}]})");
}

TEST(LiveScreen, APageFillsTheTerminalAndNoMore) {
  const std::vector<ScreenLine> lines = {{"header"}, {"12345678901"}, {"new"}, {"last"}};
  EXPECT_EQ(ComposePage(lines, {11, 4}, false),
            "\x1b[Hheader\x1b[K\r\n123456789\u2026\x1b[K\r\nnew\x1b[K\r\nlast\x1b[K\x1b[J");
  EXPECT_EQ(ComposePage(lines, {20, 3}, false),
            "\x1b[Hheader\x1b[K\r\n12345678901\x1b[K\r\n... and 2 more\x1b[K\x1b[J");
}

}  // namespace
}  // namespace talvorn
