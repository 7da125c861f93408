#include "platform/posix/forms/ini_text.h"

#include <algorithm>
#include <cstddef>
#include <functional>

#include "platform/posix/wide_text.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

std::u16string Decode(std::string_view bytes) {
  if (bytes.starts_with("\xFF\xFE")) return DecodeUtf16(bytes.substr(2), ByteOrder::kLittleEndian);
  if (bytes.starts_with("\xFE\xFF")) return DecodeUtf16(bytes.substr(2), ByteOrder::kBigEndian);
  if (bytes.starts_with("\xEF\xBB\xBF")) return Utf8ToWide(bytes.substr(3));
  return NarrowToWide(bytes);
}

// What a line can be; comments and lines without meaning are not reported.
struct Visitor {
  std::function<void(std::u16string_view name)> section;
  std::function<void(std::u16string_view key, std::u16string_view value)> entry;
};

void VisitLines(std::u16string_view text, const Visitor& visitor) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find_first_of(u"\r\n"), text.size());
    const std::u16string_view line = TrimBlanks(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty() || line.front() == u';') continue;
    if (line.front() == u'[') {
      // An unclosed name begins a section that nobody can ask for.
      const std::size_t close = line.find(u']');
      visitor.section(close == std::u16string_view::npos ? std::u16string_view()
                                                         : TrimBlanks(line.substr(1, close - 1)));
    } else if (const std::size_t equals = line.find(u'='); equals != std::u16string_view::npos) {
      visitor.entry(TrimBlanks(line.substr(0, equals)), TrimBlanks(line.substr(equals + 1)));
    }
  }
}

std::u16string_view WithoutQuotes(std::u16string_view value) {
  const bool quoted = value.size() >= 2 && value.front() == value.back() &&
                      (value.front() == u'"' || value.front() == u'\'');
  return quoted ? value.substr(1, value.size() - 2) : value;
}

// A list of names ends at its first empty one, so that a name cannot contain NUL.
std::u16string_view UpToNul(std::u16string_view text) { return text.substr(0, text.find(u'\0')); }

}  // namespace

IniText::IniText(std::string_view bytes) : text_(Decode(bytes)) {}

std::uint32_t IniText::SectionNames(std::span<char16_t> names) const {
  if (!names.empty()) names[0] = u'\0';
  if (names.size() < 2) return 0;
  std::u16string list;
  const Visitor visitor{[&list](std::u16string_view name) {
                          if (UpToNul(name).empty()) return;
                          list += UpToNul(name);
                          list += u'\0';
                        },
                        [](std::u16string_view, std::u16string_view) {}};
  VisitLines(text_, visitor);
  if (list.size() < names.size()) {
    *std::copy(list.begin(), list.end(), names.begin()) = u'\0';
    return static_cast<std::uint32_t>(list.size());
  }
  const std::size_t kept = names.size() - 2;
  std::fill(std::copy_n(list.begin(), kept, names.begin()), names.end(), u'\0');
  return static_cast<std::uint32_t>(kept);
}

std::uint32_t IniText::String(std::u16string_view section, std::u16string_view key,
                              std::span<char16_t> value) const {
  if (value.empty()) return 0;
  value[0] = u'\0';
  std::u16string found;
  enum class Stage { kBefore, kInside, kDone } stage = Stage::kBefore;
  const Visitor visitor{[&](std::u16string_view name) {
                          if (stage == Stage::kInside) stage = Stage::kDone;
                          if (stage == Stage::kBefore && !name.empty() &&
                              EqualWithoutCase(name, TrimBlanks(section))) {
                            stage = Stage::kInside;
                          }
                        },
                        [&](std::u16string_view name, std::u16string_view content) {
                          if (stage != Stage::kInside || !EqualWithoutCase(name, key)) return;
                          found = WithoutQuotes(content);
                          stage = Stage::kDone;
                        }};
  VisitLines(text_, visitor);
  const std::size_t size = std::min(found.size(), value.size() - 1);
  *std::copy_n(found.begin(), size, value.begin()) = u'\0';
  return static_cast<std::uint32_t>(size);
}

}  // namespace talvorn::platform
