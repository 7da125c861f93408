#include "platform/posix/code_page.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <bit>

#include "platform/ascii_case.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

constexpr char16_t kReplacement = 0xFFFD;
constexpr const char* kWide = std::endian::native == std::endian::little ? "UTF-16LE" : "UTF-16BE";

iconv_t None() { return reinterpret_cast<iconv_t>(-1); }

bool IsAscii(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool IsUtf8Name(std::string_view name) {
  return EqualsIgnoringCase(name, "utf-8") || EqualsIgnoringCase(name, "utf8");
}

// iconv's name for a page of Windows, which go by numbers.
std::string NameOf(std::string_view page) {
  const bool isNumber = std::ranges::all_of(page, [](char c) { return c >= '0' && c <= '9'; });
  return std::string(isNumber ? "CP" : "").append(page);
}

}  // namespace

CodePage::CodePage(std::string_view wish) : converter_(None()) {
  std::string_view page = wish;
  if (IsUtf8Name(wish.substr(0, wish.find(',')))) {
    utf8First_ = true;
    page.remove_prefix(std::min(wish.find(','), wish.size() - 1) + 1);
  }
  if (page.empty() || page == "1252" || EqualsIgnoringCase(page, "windows-1252")) return;
  // A suffix such as //TRANSLIT is no part of a name.
  if (page.find('/') == page.npos) converter_ = iconv_open(kWide, NameOf(page).c_str());
  // Texts in ASCII are not converted, so a page has to leave them what they are.
  std::string ascii;
  for (char c = ' '; c <= '~'; ++c) ascii += c;
  known_ = converter_ != None() && Convert(ascii) == std::u16string(ascii.begin(), ascii.end());
  if (!known_) Close();
}

void CodePage::Close() {
  if (converter_ != None()) iconv_close(converter_);
  converter_ = None();
}

CodePage::~CodePage() { Close(); }

std::u16string CodePage::ToWide(std::string_view text) const {
  if (IsAscii(text)) return {text.begin(), text.end()};
  if (utf8First_) {
    const std::u16string wide = Utf8ToWide(text);
    if (wide.find(kReplacement) == wide.npos) return wide;
  }
  return converter_ == None() ? NarrowToWide(text) : Convert(text);
}

std::u16string CodePage::Convert(std::string_view text) const {
  const std::lock_guard lock(mutex_);
  (void)iconv(converter_, nullptr, nullptr, nullptr, nullptr);
  std::u16string wide;
  auto* from = const_cast<char*>(text.data());  // only read
  for (std::size_t left = text.size(); left > 0;) {
    std::array<char16_t, 128> units;
    auto* to = reinterpret_cast<char*>(units.data());
    std::size_t room = sizeof(units);
    const bool failed = iconv(converter_, &from, &left, &to, &room) == static_cast<std::size_t>(-1);
    wide.append(units.data(), (sizeof(units) - room) / sizeof(char16_t));
    if (!failed || errno == E2BIG) continue;
    // A byte that begins no character, or the beginning of one at the end.
    wide.push_back(kReplacement);
    ++from;
    --left;
  }
  return wide;
}

}  // namespace talvorn::platform
