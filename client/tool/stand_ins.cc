#include "client/tool/stand_ins.h"

#include <algorithm>

#include "command_line/concat.h"

namespace talvorn {
namespace {

// Letters and digits, and every part of a character beyond ASCII.
bool IsOfWord(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c < 0;
}

bool StandsAlone(std::string_view text, std::size_t begin, std::size_t size) {
  const std::size_t end = begin + size;
  return (begin == 0 || !IsOfWord(text[begin - 1])) && (end == text.size() || !IsOfWord(text[end]));
}

}  // namespace

const std::string& StandIns::For(std::string_view kind, std::string_view name) {
  const auto known = names_.find(std::string(name));
  if (known != names_.end()) return known->second;
  const std::string number = std::to_string(names_.size() + 1);
  return names_.emplace(name, Concat({kind, "-", number})).first->second;
}

std::string StandIns::WithoutNames(std::string_view text) const {
  std::string replaced;
  for (std::size_t at = 0; at < text.size();) {
    const auto standsHere = [&](const auto& entry) {
      const std::string& name = entry.first;
      return !name.empty() && text.substr(at, name.size()) == name &&
             StandsAlone(text, at, name.size());
    };
    const auto found = std::ranges::find_if(names_, standsHere);
    replaced.append(found == names_.end() ? text.substr(at, 1) : std::string_view(found->second));
    at += found == names_.end() ? 1 : found->first.size();
  }
  return replaced;
}

}  // namespace talvorn
