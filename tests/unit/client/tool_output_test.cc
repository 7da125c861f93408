#include <gtest/gtest.h>

#include "client/tool/json_writer.h"

namespace talvorn {
namespace {

TEST(JsonWriter, SeparatesAndEscapes) {
  JsonWriter json;
  json.BeginObject();
  json.Key("list").BeginArray().Number(1).BeginObject().EndObject().BeginArray().EndArray();
  json.EndArray();
  json.Key("text").String("a\"b\\c\n\t\x1b\x7f\u0085\u202E\U000E0041\U0001F600\u00FC/");
  json.Key("narrow").ForeignString("\x80\x81\xFC");
  json.Key("ill-formed").String("\xC3");
  json.EndObject();
  EXPECT_EQ(json.text(), R"({"list":[1,{},[]],)"
                         R"("text":"a\"b\\c\u000a\u0009\u001b\u007f\u0085\u202e\udb40\udc41)"
                         R"(\ud83d\ude00\u00fc/",)"
                         R"("narrow":"\u20ac\u0081\u00fc","ill-formed":"\ufffd"})");
}

}  // namespace
}  // namespace talvorn
