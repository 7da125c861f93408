#include "client/tool/json_writer.h"

#include <array>

#include "platform/foreign_text.h"
#include "platform/text_encoding.h"
#include "support/text_format.h"

namespace talvorn {

JsonWriter& JsonWriter::Begin(char bracket) {
  Separate();
  text_.push_back(bracket);
  first_ = true;
  return *this;
}

JsonWriter& JsonWriter::End(char bracket) {
  text_.push_back(bracket);
  first_ = false;
  return *this;
}

JsonWriter& JsonWriter::Key(std::string_view name) {
  String(name);
  text_.push_back(':');
  first_ = true;
  return *this;
}

JsonWriter& JsonWriter::String(std::string_view utf8) {
  Separate();
  Quote(platform::Utf8ToWide(utf8));
  return *this;
}

JsonWriter& JsonWriter::ForeignString(std::string_view text) {
  Separate();
  Quote(platform::ForeignToWide(text));
  return *this;
}

JsonWriter& JsonWriter::Number(std::uint64_t number) { return Word(std::to_string(number)); }

JsonWriter& JsonWriter::Word(std::string_view word) {
  Separate();
  text_.append(word);
  return *this;
}

void JsonWriter::Separate() {
  if (!first_) text_.push_back(',');
  first_ = false;
}

// In ASCII: what could command a terminal is escaped, and what a shell with a code page of its
// own would break.
void JsonWriter::Quote(std::u16string_view text) {
  text_.push_back('"');
  while (!text.empty()) {
    const std::u16string_view before = text;
    const char32_t c = platform::TakeCharacter(text);
    const std::u16string_view units = before.substr(0, before.size() - text.size());
    if (c == U'"' || c == U'\\') {
      text_.push_back('\\');
      text_.push_back(static_cast<char>(c));
    } else if (c >= U' ' && c <= U'~') {
      text_.push_back(static_cast<char>(c));
    } else {
      for (const char16_t unit : units) {
        std::array<char, 8> escape{};
        FormatTextA(escape, "\\u%04x", std::uint32_t{unit});
        text_.append(escape.data());
      }
    }
  }
  text_.push_back('"');
}

}  // namespace talvorn
