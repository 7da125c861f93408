// One text out of several.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace talvorn {

[[nodiscard]] inline std::string Concat(std::initializer_list<std::string_view> parts) {
  std::string whole;
  for (const std::string_view part : parts) whole.append(part);
  return whole;
}

[[nodiscard]] std::string Joined(const auto& texts, std::string_view separator) {
  std::string whole;
  bool first = true;
  for (const std::string& text : texts) {
    if (!first) whole.append(separator);
    whole.append(text);
    first = false;
  }
  return whole;
}

}  // namespace talvorn
