// Comparisons that ignore the case of ASCII letters, and of nothing else.
#pragma once

#include <algorithm>
#include <string_view>
#include <type_traits>

namespace talvorn::platform {

template <class Char>
[[nodiscard]] constexpr Char ToAsciiLower(Char c) {
  return c >= Char('A') && c <= Char('Z') ? static_cast<Char>(c - Char('A') + Char('a')) : c;
}

template <class Char>
[[nodiscard]] constexpr bool EqualsIgnoringCase(
    std::basic_string_view<Char> left, std::type_identity_t<std::basic_string_view<Char>> right) {
  return std::ranges::equal(left, right, {}, ToAsciiLower<Char>, ToAsciiLower<Char>);
}

template <class Char>
[[nodiscard]] constexpr bool StartsIgnoringCase(
    std::basic_string_view<Char> text, std::type_identity_t<std::basic_string_view<Char>> prefix) {
  return EqualsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

}  // namespace talvorn::platform
