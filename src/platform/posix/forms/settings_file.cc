#include "platform/posix/forms/settings_file.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "platform/ascii_case.h"
#include "platform/posix/wide_text.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view kUtf16Mark = "\xFF\xFE";

// The first ones are enough to find the others.
constexpr std::size_t kMostStrangeLines = 5;

constexpr std::string_view kRoot = "HKEY_LOCAL_MACHINE\\";

std::string LittleEndian(std::uint32_t value, std::size_t size) {
  std::string bytes;
  for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(value >> 8 * i);
  return bytes;
}

std::string EncodeUtf16(std::string_view utf8) {
  std::string bytes;
  for (const char16_t unit : Utf8ToWide(utf8)) bytes += LittleEndian(unit, sizeof(unit));
  return bytes;
}

std::string NumberText(std::uint32_t value) {
  std::string text = "dword:";
  for (int shift = 28; shift >= 0; shift -= 4) text += "0123456789abcdef"[value >> shift & 0xF];
  return text;
}

std::string QuotedName(std::string_view name) {
  if (name.empty()) return "@";
  std::string text = "\"";
  for (const char c : name) {
    if (c == '\\' || c == '"') text += '\\';
    text += c;
  }
  return text + '"';
}

std::string_view WithoutTrailingSeparators(std::string_view path) {
  while (path.ends_with('\\')) path.remove_suffix(1);
  return path;
}

std::string Folded(std::string_view name) { return WideToUtf8(FoldCase(Utf8ToWide(name))); }

// Reads the elements of one line from left to right.
class LineCursor {
 public:
  explicit LineCursor(std::string_view line) : rest_(line) {}

  [[nodiscard]] std::string_view rest() const { return rest_; }
  void SkipBlanks() {
    while (rest_.starts_with(' ') || rest_.starts_with('\t')) rest_.remove_prefix(1);
  }
  // Nothing but blanks and a comment is left.
  [[nodiscard]] bool RestIsEmpty() {
    SkipBlanks();
    return rest_.empty() || rest_.starts_with(';');
  }
  bool Take(char c) {
    if (!rest_.starts_with(c)) return false;
    rest_.remove_prefix(1);
    return true;
  }
  bool TakeWord(std::string_view word) {
    if (!StartsIgnoringCase(rest_, word)) return false;
    rest_.remove_prefix(word.size());
    return true;
  }
  // One to `most` hexadecimal digits.
  std::optional<std::uint32_t> TakeHex(std::size_t most) {
    const std::size_t digits =
        std::min(rest_.find_first_not_of("0123456789abcdefABCDEF"), rest_.size());
    if (digits == 0 || digits > most) return std::nullopt;
    std::uint32_t number = 0;
    std::from_chars(rest_.data(), rest_.data() + digits, number, 16);
    rest_.remove_prefix(digits);
    return number;
  }
  // A text in quotes; `\\` and `\"` stand for their second character.
  std::optional<std::string> TakeQuoted() {
    if (!Take('"')) return std::nullopt;
    std::string content;
    while (!rest_.empty() && !rest_.starts_with('"')) {
      if (rest_.starts_with("\\\\") || rest_.starts_with("\\\"")) rest_.remove_prefix(1);
      content += rest_.front();
      rest_.remove_prefix(1);
    }
    return Take('"') ? std::optional(std::move(content)) : std::nullopt;
  }
  // What stands before the first `]` that ends the line.
  [[nodiscard]] std::optional<std::string_view> TakeSectionName() const {
    for (std::size_t end = rest_.find(']'); end != rest_.npos; end = rest_.find(']', end + 1)) {
      if (LineCursor(rest_.substr(end + 1)).RestIsEmpty()) return rest_.substr(0, end);
    }
    return std::nullopt;
  }

 private:
  std::string_view rest_;
};

}  // namespace

class SettingsFile::Parser {
 public:
  explicit Parser(SettingsFile& file) : file_(file), text_(file.Text()) {}

  void Run() {
    while (NextLine()) {
      LineCursor cursor(line_);
      if (cursor.RestIsEmpty()) continue;
      const std::size_t number = lineNumber_;
      const bool understood =
          cursor.Take('[') ? ParseSection(cursor) : key_ == nullptr || ParseValue(cursor);
      if (!understood && file_.strangeLines_.size() < kMostStrangeLines)
        file_.strangeLines_.push_back(number);
    }
  }

 private:
  // False at the end of the file.
  bool NextLine() {
    if (next_ == text_.size()) return false;
    const std::size_t end = std::min(text_.find('\n', next_), text_.size());
    line_ = text_.substr(next_, end - next_);
    if (line_.ends_with('\r')) line_.remove_suffix(1);
    next_ = std::min(end + 1, text_.size());
    ++lineNumber_;
    return true;
  }

  [[nodiscard]] std::size_t OffsetOf(const LineCursor& cursor) const {
    return static_cast<std::size_t>(cursor.rest().data() - text_.data());
  }

  // False when the line is none that counts; also for a key of another root, as its values are not
  // looked at.
  bool ParseSection(LineCursor& cursor) {
    key_ = nullptr;
    const bool deletion = cursor.Take('-');
    const auto name = cursor.TakeSectionName();
    if (!name || name->size() <= kRoot.size() || !StartsIgnoringCase(*name, kRoot)) return false;
    const std::string path = Folded(WithoutTrailingSeparators(name->substr(kRoot.size())));
    if (deletion) {
      // The key and the keys below it, which stand together.
      file_.keys_.erase(path);
      file_.keys_.erase(file_.keys_.lower_bound(path + '\\'),
                        file_.keys_.lower_bound(path + static_cast<char>('\\' + 1)));
      return true;
    }
    key_ = &file_.keys_[path];
    key_->headerEnd = next_;
    return true;
  }

  bool ParseValue(LineCursor& cursor) {
    Entry entry;
    if (!cursor.Take('@')) {
      const auto name = cursor.TakeQuoted();
      if (!name || name->empty()) return false;
      // What is no character has the name that it is shown with.
      entry.value.name = WideToUtf8(Utf8ToWide(*name));
    }
    cursor.SkipBlanks();
    if (!cursor.Take('=')) return false;
    cursor.SkipBlanks();
    entry.begin = OffsetOf(cursor);
    if (!ParseData(cursor, entry)) return false;
    const auto [known, added] =
        key_->index.try_emplace(Folded(entry.value.name), key_->entries.size());
    if (added) {
      key_->entries.push_back(std::move(entry));
    } else {
      entry.value.name = key_->entries[known->second].value.name;
      key_->entries[known->second] = std::move(entry);
    }
    return true;
  }

  bool ParseData(LineCursor& cursor, Entry& entry) {
    if (cursor.rest().starts_with('"')) {
      const auto content = cursor.TakeQuoted();
      if (!content) return false;
      entry.value.type = SettingType::kString;
      entry.value.data = EncodeUtf16(*content).append(2, '\0');
    } else if (cursor.Take('-')) {
      entry.deleted = true;
    } else if (cursor.TakeWord("dword:")) {
      cursor.SkipBlanks();
      const auto number = cursor.TakeHex(8);
      if (!number) return false;
      entry.value.type = SettingType::kNumber;
      entry.value.data = LittleEndian(*number, sizeof(*number));
    } else if (cursor.TakeWord("hex")) {
      return ParseBytes(cursor, entry);
    } else {
      return false;
    }
    entry.end = OffsetOf(cursor);
    return cursor.RestIsEmpty();
  }

  // `:` or `(TYPE):`, and bytes in two digits with commas between them. A backslash
  // at the end of a line continues the list on the next one.
  bool ParseBytes(LineCursor& cursor, Entry& entry) {
    entry.value.type = SettingType::kBinary;
    if (cursor.Take('(')) {
      const auto type = cursor.TakeHex(8);
      if (!type || !cursor.Take(')')) return false;
      entry.value.type = SettingType{*type};
    }
    if (!cursor.Take(':')) return false;
    LineCursor list = cursor;
    entry.end = OffsetOf(list);
    for (bool separated = true; !list.RestIsEmpty();) {
      if (list.Take('\\')) {
        entry.end = OffsetOf(list);
        if (!list.RestIsEmpty()) return false;
        if (!NextLine()) return true;
        list = LineCursor(line_);
        separated = true;
        continue;
      }
      const auto byte = separated ? list.TakeHex(2) : std::nullopt;
      if (!byte) return false;
      entry.value.data += static_cast<char>(*byte);
      entry.end = OffsetOf(list);
      list.SkipBlanks();
      separated = list.Take(',');
      if (separated) entry.end = OffsetOf(list);
    }
    return true;
  }

  SettingsFile& file_;
  const std::string_view text_;
  Key* key_ = nullptr;  // none outside of the keys that count
  std::size_t next_ = 0;
  std::size_t lineNumber_ = 0;
  std::string_view line_;  // without its end
};

SettingsFile::SettingsFile(std::string bytes) : bytes_(std::move(bytes)) {
  if (bytes_.starts_with(kUtf16Mark)) {
    isUtf16_ = true;
    markSize_ = kUtf16Mark.size();
    decoded_ = WideToUtf8(
        DecodeUtf16(std::string_view(bytes_).substr(markSize_), ByteOrder::kLittleEndian));
  } else if (bytes_.starts_with(kUtf8Mark)) {
    markSize_ = kUtf8Mark.size();
  }
  Parser(*this).Run();
}

std::string_view SettingsFile::Text() const {
  return isUtf16_ ? decoded_ : std::string_view(bytes_).substr(markSize_);
}

const SettingsFile::Key* SettingsFile::FindKey(std::string_view path) const {
  const auto key = keys_.find(Folded(WithoutTrailingSeparators(path)));
  return key == keys_.end() ? nullptr : &key->second;
}

bool SettingsFile::HasKey(std::string_view path) const { return FindKey(path) != nullptr; }

const Setting* SettingsFile::Find(std::string_view path, std::string_view name) const {
  const Key* const key = FindKey(path);
  if (key == nullptr) return nullptr;
  const auto known = key->index.find(Folded(name));
  if (known == key->index.end()) return nullptr;
  const Entry& entry = key->entries[known->second];
  return entry.deleted ? nullptr : &entry.value;
}

std::vector<const Setting*> SettingsFile::ValuesOf(std::string_view path) const {
  std::vector<const Setting*> values;
  const Key* const key = FindKey(path);
  if (key == nullptr) return values;
  for (const Entry& entry : key->entries) {
    if (!entry.deleted) values.push_back(&entry.value);
  }
  return values;
}

std::string SettingsFile::WithKey(std::string_view path) const {
  if (HasKey(path)) return bytes_;
  std::vector<std::string> lines;
  if (bytes_.empty()) lines.push_back("Windows Registry Editor Version 5.00");
  lines.push_back("");
  lines.push_back('[' + std::string(kRoot) + std::string(WithoutTrailingSeparators(path)) + ']');
  return With({Insertion(Text().size(), lines)});
}

std::optional<std::string> SettingsFile::WithNumbers(std::string_view path,
                                                     std::span<const std::string> names,
                                                     std::uint32_t value) const {
  const Key* const key = FindKey(path);
  if (key == nullptr) return std::nullopt;
  std::vector<Edit> edits;
  std::vector<std::string> added;
  for (const std::string& name : names) {
    const auto known = key->index.find(Folded(name));
    if (known == key->index.end()) {
      added.push_back(QuotedName(name) + '=' + NumberText(value));
    } else {
      const Entry& entry = key->entries[known->second];
      edits.push_back({entry.begin, entry.end, NumberText(value)});
    }
  }
  if (!added.empty()) edits.push_back(Insertion(key->headerEnd, added));
  return With(std::move(edits));
}

SettingsFile::Edit SettingsFile::Insertion(std::size_t offset,
                                           std::span<const std::string> lines) const {
  const std::string_view text = Text();
  const std::string_view before = text.substr(0, offset);
  const std::size_t first = text.find('\n');
  const bool returns = first != text.npos && text.substr(0, first).ends_with('\r');
  const std::string lineEnd = returns ? "\r\n" : "\n";  // as the first line ends
  Edit edit{offset, offset, ""};
  if (!before.empty() && !before.ends_with('\n'))
    edit.replacement = before.ends_with('\r') ? "\n" : lineEnd;
  for (const std::string& line : lines) edit.replacement += line + lineEnd;
  return edit;
}

std::string SettingsFile::With(std::vector<Edit> edits) const {
  const auto sizeInFile = [this](std::string_view text) {
    return isUtf16_ ? Utf8ToWide(text).size() * sizeof(char16_t) : text.size();
  };
  std::ranges::sort(edits, {}, &Edit::begin);
  std::string changed(bytes_, 0, markSize_);
  std::size_t copied = markSize_;
  std::size_t next = 0;
  for (const Edit& edit : edits) {
    if (edit.begin < next) continue;  // the same value once more
    const std::size_t kept = sizeInFile(Text().substr(next, edit.begin - next));
    changed.append(bytes_, copied, kept);
    changed += isUtf16_ ? EncodeUtf16(edit.replacement) : edit.replacement;
    copied += kept + sizeInFile(Text().substr(edit.begin, edit.end - edit.begin));
    next = edit.end;
  }
  return changed.append(bytes_, copied);
}

}  // namespace talvorn::platform
