#include "platform/posix/forms/registry_file.h"

#include <span>
#include <utility>

#include "platform/posix/utf8.h"
#include "platform/posix/wide_text.h"
#include "platform/registry.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view kUtf16Mark = "\xFF\xFE";

constexpr std::u16string_view kRoot = u"HKEY_LOCAL_MACHINE\\";
constexpr std::uint32_t kRegistryBinary = 3;

std::string EncodeUtf16(std::u16string_view text) {
  std::string bytes;
  bytes.reserve(text.size() * 2);
  for (const char16_t unit : text) {
    bytes.push_back(static_cast<char>(unit & 0xFF));
    bytes.push_back(static_cast<char>(unit >> 8));
  }
  return bytes;
}

std::vector<std::byte> AsData(std::string_view bytes) {
  const auto data = std::as_bytes(std::span(bytes));
  return {data.begin(), data.end()};
}

std::vector<std::byte> DwordData(std::uint32_t value) {
  std::vector<std::byte> data;
  for (unsigned int shift = 0; shift < 32; shift += 8) data.push_back(std::byte(value >> shift));
  return data;
}

std::optional<std::uint32_t> HexDigit(char16_t unit) {
  if (unit >= u'0' && unit <= u'9') return unit - u'0';
  if (unit >= u'a' && unit <= u'f') return unit - u'a' + 10;
  if (unit >= u'A' && unit <= u'F') return unit - u'A' + 10;
  return std::nullopt;
}

std::u16string Dword(std::uint32_t value) {
  std::u16string text = u"dword:";
  for (int shift = 28; shift >= 0; shift -= 4) {
    text.push_back(u"0123456789abcdef"[value >> shift & 0xF]);
  }
  return text;
}

std::u16string QuotedName(std::u16string_view name) {
  if (name.empty()) return u"@";
  std::u16string text = u"\"";
  for (const char16_t unit : name) {
    if (unit == u'\\' || unit == u'"') text.push_back(u'\\');
    text.push_back(unit);
  }
  return text + u'"';
}

std::u16string_view WithoutTrailingSeparators(std::u16string_view path) {
  while (path.ends_with(u'\\')) path.remove_suffix(1);
  return path;
}

// Reads the elements of one line from left to right.
class LineCursor {
 public:
  explicit LineCursor(std::u16string_view text) : text_(text) {}

  [[nodiscard]] std::size_t position() const { return position_; }
  [[nodiscard]] bool AtEnd() const { return position_ == text_.size(); }
  [[nodiscard]] char16_t Peek() const { return AtEnd() ? u'\0' : text_[position_]; }
  void Skip() { ++position_; }
  void SkipBlanks() {
    while (!AtEnd() && IsBlank(text_[position_])) ++position_;
  }
  // Nothing but blanks and a comment is left.
  [[nodiscard]] bool RestIsEmpty() {
    SkipBlanks();
    return AtEnd() || Peek() == u';';
  }
  bool Take(char16_t unit) {
    if (AtEnd() || text_[position_] != unit) return false;
    ++position_;
    return true;
  }
  bool TakeWord(std::u16string_view word) {
    if (!EqualWithoutCase(text_.substr(position_, word.size()), word)) return false;
    position_ += word.size();
    return true;
  }
  // One to `most` hexadecimal digits.
  std::optional<std::uint32_t> TakeHex(int most) {
    std::uint32_t number = 0;
    int digits = 0;
    for (auto digit = HexDigit(Peek()); digit; digit = HexDigit(Peek())) {
      if (++digits > most) return std::nullopt;
      number = number << 4 | *digit;
      ++position_;
    }
    return digits > 0 ? std::optional(number) : std::nullopt;
  }
  // A text in quotes; `\\` and `\"` stand for their second character.
  std::optional<std::u16string> TakeQuoted() {
    if (!Take(u'"')) return std::nullopt;
    std::u16string content;
    while (!AtEnd() && Peek() != u'"') {
      if (Peek() == u'\\' && position_ + 1 < text_.size() &&
          (text_[position_ + 1] == u'\\' || text_[position_ + 1] == u'"')) {
        ++position_;
      }
      content.push_back(text_[position_++]);
    }
    return Take(u'"') ? std::optional(std::move(content)) : std::nullopt;
  }
  // What stands before the first `]` that ends the line.
  std::optional<std::u16string_view> TakeSectionName() {
    for (std::size_t end = position_; end < text_.size(); ++end) {
      if (text_[end] != u']') continue;
      LineCursor rest(text_.substr(end + 1));
      if (rest.RestIsEmpty()) return text_.substr(position_, end - position_);
    }
    return std::nullopt;
  }

 private:
  std::u16string_view text_;
  std::size_t position_ = 0;
};

}  // namespace

class RegistryFile::Parser {
 public:
  explicit Parser(RegistryFile& file) : file_(file) {
    const std::string_view bytes = file_.bytes_;
    if (bytes.starts_with(kUtf16Mark)) {
      file_.encoding_ = Encoding::kUtf16;
      next_ = kUtf16Mark.size();
    } else if (bytes.starts_with(kUtf8Mark)) {
      next_ = kUtf8Mark.size();
    }
  }

  void Run() {
    if (!ReadLine()) return;
    file_.lineEnd_ = lineEnd_;
    do {
      LineCursor cursor(text_);
      if (cursor.RestIsEmpty()) continue;
      if (cursor.Take(u'[')) {
        ParseSection(cursor);
      } else if (key_ != nullptr) {
        ParseValue(cursor);
      }
    } while (ReadLine());
  }

 private:
  // The next line into text_; false at the end of the file.
  bool ReadLine() {
    const std::string_view bytes = file_.bytes_;
    const std::size_t width = file_.encoding_ == Encoding::kUtf16 ? 2 : 1;
    if (bytes.size() - next_ < width) return false;
    line_ = next_;
    std::size_t end = line_;
    bool terminated = false;
    while (!terminated && bytes.size() - end >= width) {
      terminated = bytes[end] == '\n' && (width == 1 || bytes[end + 1] == '\0');
      if (!terminated) end += width;
    }
    next_ = terminated ? end + width : end;
    const std::string_view content = bytes.substr(line_, end - line_);
    text_ = width == 1 ? Utf8ToWide(content) : DecodeUtf16(content, ByteOrder::kLittleEndian);
    const bool carriageReturn = text_.ends_with(u'\r');
    if (carriageReturn) text_.pop_back();
    lineEnd_ = carriageReturn && terminated ? u"\r\n" : u"\n";
    return true;
  }

  [[nodiscard]] Place PlaceOf(const LineCursor& cursor) const { return {line_, cursor.position()}; }

  void ParseSection(LineCursor& cursor) {
    key_ = nullptr;
    const bool deletion = cursor.Take(u'-');
    const auto name = cursor.TakeSectionName();
    if (!name || name->size() <= kRoot.size() ||
        !EqualWithoutCase(name->substr(0, kRoot.size()), kRoot)) {
      return;
    }
    const std::u16string path = FoldCase(WithoutTrailingSeparators(name->substr(kRoot.size())));
    if (deletion) {
      // The key and the keys below it, which stand together.
      file_.keys_.erase(path);
      file_.keys_.erase(file_.keys_.lower_bound(path + u'\\'),
                        file_.keys_.lower_bound(path + static_cast<char16_t>(u'\\' + 1)));
      return;
    }
    key_ = &file_.keys_[path];
    key_->headerEnd = next_;
  }

  void ParseValue(LineCursor& cursor) {
    Entry entry;
    if (!cursor.Take(u'@')) {
      auto name = cursor.TakeQuoted();
      if (!name || name->empty()) return;
      entry.value.name = *std::move(name);
    }
    cursor.SkipBlanks();
    if (!cursor.Take(u'=')) return;
    cursor.SkipBlanks();
    entry.begin = PlaceOf(cursor);
    if (!ParseData(cursor, entry)) return;
    const auto [known, added] =
        key_->index.try_emplace(FoldCase(entry.value.name), key_->entries.size());
    if (added) {
      key_->entries.push_back(std::move(entry));
    } else {
      entry.value.name = key_->entries[known->second].value.name;
      key_->entries[known->second] = std::move(entry);
    }
  }

  bool ParseData(LineCursor& cursor, Entry& entry) {
    if (cursor.Peek() == u'"') {
      const auto content = cursor.TakeQuoted();
      if (!content) return false;
      entry.value.type = kRegistryString;
      entry.value.data = AsData(EncodeUtf16(*content + u'\0'));
    } else if (cursor.Take(u'-')) {
      entry.deleted = true;
    } else if (cursor.TakeWord(u"dword:")) {
      cursor.SkipBlanks();
      const auto number = cursor.TakeHex(8);
      if (!number) return false;
      entry.value.type = kRegistryDword;
      entry.value.data = DwordData(*number);
    } else if (cursor.TakeWord(u"hex")) {
      return ParseBytes(cursor, entry);
    } else {
      return false;
    }
    entry.end = PlaceOf(cursor);
    return cursor.RestIsEmpty();
  }

  // `:` or `(TYPE):`, and bytes in two digits with commas between them. A backslash
  // at the end of a line continues the list on the next one.
  bool ParseBytes(LineCursor& cursor, Entry& entry) {
    entry.value.type = kRegistryBinary;
    if (cursor.Take(u'(')) {
      const auto type = cursor.TakeHex(8);
      if (!type || !cursor.Take(u')')) return false;
      entry.value.type = *type;
    }
    if (!cursor.Take(u':')) return false;
    LineCursor list = cursor;
    entry.end = PlaceOf(list);
    for (;;) {
      if (list.RestIsEmpty()) return true;
      if (list.Take(u'\\')) {
        entry.end = PlaceOf(list);
        if (!list.RestIsEmpty()) return false;
        if (!ReadLine()) return true;
        list = LineCursor(text_);
        continue;
      }
      const auto byte = list.TakeHex(2);
      if (!byte) return false;
      entry.value.data.push_back(std::byte(*byte));
      entry.end = PlaceOf(list);
      list.SkipBlanks();
      if (list.Take(u',')) {
        entry.end = PlaceOf(list);
      } else if (!list.RestIsEmpty() && list.Peek() != u'\\') {
        return false;
      }
    }
  }

  RegistryFile& file_;
  Key* key_ = nullptr;  // none outside of the keys that count
  std::size_t line_ = 0;
  std::size_t next_ = 0;
  std::u16string text_;  // of the line, without its end
  std::u16string lineEnd_;
};

RegistryFile::RegistryFile(std::string bytes) : bytes_(std::move(bytes)) { Parser(*this).Run(); }

bool RegistryFile::HasKey(std::u16string_view path) const {
  return keys_.contains(FoldCase(WithoutTrailingSeparators(path)));
}

std::vector<RegistryValue> RegistryFile::ValuesOf(std::u16string_view path) const {
  std::vector<RegistryValue> values;
  const auto key = keys_.find(FoldCase(WithoutTrailingSeparators(path)));
  if (key == keys_.end()) return values;
  for (const Entry& entry : key->second.entries) {
    if (!entry.deleted) values.push_back(entry.value);
  }
  return values;
}

std::string RegistryFile::WithKey(std::u16string_view path) const {
  if (HasKey(path)) return bytes_;
  const std::u16string header =
      u"[" + std::u16string(kRoot) + std::u16string(WithoutTrailingSeparators(path)) + u"]";
  if (bytes_.empty()) {
    return WithLines(0, {u"Windows Registry Editor Version 5.00", u"", header});
  }
  return WithLines(bytes_.size(), {u"", header});
}

std::optional<std::string> RegistryFile::WithDwords(std::u16string_view path,
                                                    std::span<const std::u16string> names,
                                                    std::uint32_t value) const {
  const auto key = keys_.find(FoldCase(WithoutTrailingSeparators(path)));
  if (key == keys_.end()) return std::nullopt;

  std::vector<std::u16string> added;
  std::map<std::size_t, std::size_t> replaced;  // ends of the data, by their beginnings
  for (const std::u16string& name : names) {
    const auto known = key->second.index.find(FoldCase(name));
    if (known == key->second.index.end()) {
      added.push_back(QuotedName(name) + u"=" + Dword(value));
    } else {
      const Entry& entry = key->second.entries[known->second];
      replaced[OffsetOf(entry.begin)] = OffsetOf(entry.end);
    }
  }

  const std::string data = Encode(Dword(value));
  std::string changed;
  std::size_t copied = 0;
  for (const auto& [begin, end] : replaced) {
    changed.append(bytes_, copied, begin - copied).append(data);
    copied = end;
  }
  changed.append(bytes_, copied);
  if (added.empty()) return changed;
  // Read anew, since the key's lines have moved.
  const RegistryFile moved(std::move(changed));
  return moved.WithLines(moved.keys_.find(key->first)->second.headerEnd, added);
}

std::size_t RegistryFile::OffsetOf(Place place) const {
  if (encoding_ == Encoding::kUtf16) return place.line + place.character * 2;
  std::size_t offset = place.line;
  for (std::size_t units = 0; units < place.character;) {
    const char32_t c = NextUtf8(bytes_, offset);
    units += c > 0xFFFF && c != kIllFormed ? 2 : 1;
  }
  return offset;
}

std::string RegistryFile::Encode(std::u16string_view text) const {
  return encoding_ == Encoding::kUtf16 ? EncodeUtf16(text) : WideToUtf8(text);
}

std::string RegistryFile::WithLines(std::size_t offset,
                                    const std::vector<std::u16string>& lines) const {
  if (encoding_ == Encoding::kUtf16) offset -= offset % 2;  // half a character at the end
  std::u16string text;
  const std::string_view before = std::string_view(bytes_).substr(0, offset);
  if (offset > 0 && !before.ends_with(Encode(u"\n")))
    text += before.ends_with(Encode(u"\r")) ? u"\n" : lineEnd_;
  for (const std::u16string& line : lines) text += line + lineEnd_;
  return std::string(before) + Encode(text) + bytes_.substr(offset);
}

}  // namespace talvorn::platform
