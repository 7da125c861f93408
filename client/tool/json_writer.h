// Writes one JSON document on one line, in ASCII.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace talvorn {

class JsonWriter {
 public:
  JsonWriter& BeginObject() { return Begin('{'); }
  JsonWriter& EndObject() { return End('}'); }
  JsonWriter& BeginArray() { return Begin('['); }
  JsonWriter& EndArray() { return End(']'); }
  JsonWriter& Key(std::string_view name);

  JsonWriter& String(std::string_view utf8);
  // A text as devices send it, in their code page.
  JsonWriter& ForeignString(std::string_view text);
  JsonWriter& Number(std::uint64_t number);
  JsonWriter& Bool(bool value) { return Word(value ? "true" : "false"); }
  JsonWriter& Null() { return Word("null"); }

  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  JsonWriter& Begin(char bracket);
  JsonWriter& End(char bracket);
  JsonWriter& Word(std::string_view word);
  void Separate();
  void Quote(std::u16string_view text);

  std::string text_;
  bool first_ = true;  // nothing stands before the next value on its level
};

}  // namespace talvorn
