#include "client/tool/arrangement.h"

#include "platform/ascii_case.h"
#include "platform/text_encoding.h"

namespace talvorn {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// * stands for any text, ? for one character. Steps back to the last * when what follows it
// does not fit.
bool IsWildcardMatch(std::u16string_view pattern, std::u16string_view text) {
  std::size_t p = 0;
  std::size_t t = 0;
  std::size_t star = pattern.npos;
  std::size_t resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == u'*') {
      star = p++;
      resume = t;
    } else if (p < pattern.size() && (pattern[p] == u'?' || platform::ToAsciiLower(pattern[p]) ==
                                                                platform::ToAsciiLower(text[t]))) {
      ++p;
      ++t;
    } else if (star != pattern.npos) {
      p = star + 1;
      t = ++resume;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of(u'*', p) == pattern.npos;
}

// The number that begins the text, without zeros before it; taken off the text.
std::string_view TakeNumber(std::string_view& text) {
  const auto end = std::ranges::find_if_not(text, IsDigit) - text.begin();
  std::string_view digits = text.substr(0, static_cast<std::size_t>(end));
  text.remove_prefix(digits.size());
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  return digits;
}

}  // namespace

bool IsMatch(std::string_view pattern, const std::vector<std::string>& cells) {
  std::u16string wide = platform::Utf8ToWide(pattern);
  if (pattern.find_first_of("*?") == pattern.npos) wide = u'*' + wide + u'*';
  return std::ranges::any_of(cells, [&](const std::string& cell) {
    return IsWildcardMatch(wide, platform::Utf8ToWide(cell));
  });
}

bool ComesBefore(std::string_view left, std::string_view right) {
  while (!left.empty() && !right.empty()) {
    if (IsDigit(left[0]) && IsDigit(right[0])) {
      const std::string_view a = TakeNumber(left);
      const std::string_view b = TakeNumber(right);
      if (a != b) return a.size() != b.size() ? a.size() < b.size() : a < b;
      continue;
    }
    const char a = platform::ToAsciiLower(left[0]);
    const char b = platform::ToAsciiLower(right[0]);
    if (a != b) return static_cast<unsigned char>(a) < static_cast<unsigned char>(b);
    left.remove_prefix(1);
    right.remove_prefix(1);
  }
  return left.empty() && !right.empty();
}

std::size_t ColumnOf(const std::vector<std::string>& headings, std::string_view heading) {
  const auto found = std::ranges::find_if(headings, [heading](const std::string& one) {
    return platform::EqualsIgnoringCase(std::string_view(one), heading);
  });
  return static_cast<std::size_t>(found - headings.begin());
}

std::vector<std::string> SelectCells(const std::vector<std::string>& headings,
                                     const std::vector<std::string>& cells,
                                     const std::vector<std::string>& selected) {
  if (selected.empty()) return cells;
  std::vector<std::string> chosen;
  for (const std::string& heading : selected) {
    const std::size_t column = ColumnOf(headings, heading);
    if (column < cells.size()) chosen.push_back(cells[column]);
  }
  return chosen;
}

}  // namespace talvorn
