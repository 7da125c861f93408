// Bounded printf-style formatting without C's varargs. Formats are checked against
// their arguments when the program is built.
//
// Conversions: %s (text of the format's own width), %u %x %X (unsigned), %d
// (signed), %%; with an optional 0 flag, a width, and the length modifiers l and
// ll, which say nothing here because every argument brings its own size.
//
//   std::array<char16_t, 50> buffer;
//   FormatTextW(buffer, u"Network interface IPv6: %u located !", index);
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

namespace talvorn {

enum class FormatKind : std::uint8_t { kUnsigned, kSigned, kText };

template <class Char>
struct FormatArgument {
  FormatKind kind = FormatKind::kUnsigned;
  std::uint64_t number = 0;  // two's complement when signed
  std::basic_string_view<Char> text{};

  template <std::unsigned_integral T>
  constexpr FormatArgument(T value) : kind(FormatKind::kUnsigned), number(value) {}
  template <std::signed_integral T>
  constexpr FormatArgument(T value)
      : kind(FormatKind::kSigned), number(static_cast<std::uint64_t>(std::int64_t{value})) {}
  constexpr FormatArgument(std::basic_string_view<Char> value)
      : kind(FormatKind::kText), text(value) {}
};

// One conversion of a format, or the literal text before it.
struct FormatConversion {
  bool valid = false;
  bool percent = false;  // "%%"
  bool zeroPad = false;
  std::size_t width = 0;
  char type = '\0';        // s, u, x, X or d
  std::size_t length = 0;  // of the conversion in the format, "%" included
};

// The conversion at the start of `format`, which begins with '%'.
template <class Char>
[[nodiscard]] constexpr FormatConversion ParseConversion(std::basic_string_view<Char> format) {
  FormatConversion conversion;
  std::size_t at = 1;
  const auto next = [&] { return at < format.size() ? format[at] : Char{0}; };
  if (next() == Char('%')) return {.valid = true, .percent = true, .length = 2};
  if (next() == Char('0')) {
    conversion.zeroPad = true;
    ++at;
  }
  for (; next() >= Char('0') && next() <= Char('9') && conversion.width < 1'000; ++at)
    conversion.width = conversion.width * 10 + static_cast<std::size_t>(next() - Char('0'));
  for (int modifiers = 0; next() == Char('l') && modifiers < 2; ++modifiers) ++at;
  for (const char type : {'s', 'u', 'x', 'X', 'd'}) {
    if (next() == Char(type)) conversion.type = type;
  }
  conversion.valid = conversion.type != '\0';
  conversion.length = at + 1;
  return conversion;
}

[[nodiscard]] constexpr bool Accepts(const FormatConversion& conversion, FormatKind kind) {
  switch (conversion.type) {
    case 's':
      return kind == FormatKind::kText;
    case 'd':
      return kind == FormatKind::kSigned;
    default:
      return kind == FormatKind::kUnsigned;
  }
}

template <class Char, class Argument>
[[nodiscard]] consteval FormatKind KindOf() {
  using T = std::remove_cvref_t<Argument>;
  if constexpr (std::unsigned_integral<T>) return FormatKind::kUnsigned;
  if constexpr (std::signed_integral<T>) return FormatKind::kSigned;
  if constexpr (std::convertible_to<Argument, std::basic_string_view<Char>>)
    return FormatKind::kText;
  static_assert(std::integral<T> || std::convertible_to<Argument, std::basic_string_view<Char>>,
                "an argument is an integer or a text of the format's width");
}

// A format that fits its arguments; anything else does not build.
template <class Char, class... Arguments>
class CheckedFormat {
 public:
  template <class Text>
  requires std::convertible_to<const Text&, std::basic_string_view<Char>>
  consteval CheckedFormat(const Text& text) : text_(text) {
    constexpr std::size_t kCount = sizeof...(Arguments);
    const FormatKind kinds[kCount + 1] = {KindOf<Char, Arguments>()..., FormatKind::kText};
    std::size_t used = 0;
    for (auto rest = text_; !rest.empty();) {
      if (rest.front() != Char('%')) {
        rest.remove_prefix(1);
        continue;
      }
      const FormatConversion conversion = ParseConversion(rest);
      if (!conversion.valid) throw "invalid conversion in a format";
      if (!conversion.percent) {
        if (used == kCount) throw "a format with more conversions than arguments";
        if (!Accepts(conversion, kinds[used]))
          throw "a conversion of another kind than its argument";
        ++used;
      }
      rest.remove_prefix(conversion.length);
    }
    if (used != kCount) throw "a format with fewer conversions than arguments";
  }
  [[nodiscard]] constexpr std::basic_string_view<Char> text() const { return text_; }

 private:
  std::basic_string_view<Char> text_;
};

// The arguments of one call, as the formatting engine takes them.
template <class Char, std::size_t kCount>
using FormatArguments = std::array<FormatArgument<Char>, kCount>;

template <class Char, class Argument>
[[nodiscard]] FormatArgument<Char> ToFormatArgument(const Argument& argument) {
  if constexpr (std::integral<Argument>)
    return FormatArgument<Char>(argument);
  else
    return FormatArgument<Char>(std::basic_string_view<Char>(argument));
}

// Writes the first `out.size()` characters of the text and returns the length of
// the whole, without any terminator.
std::size_t FormatInto(std::span<char> out, std::string_view format,
                       std::span<const FormatArgument<char>> arguments);
std::size_t FormatInto(std::span<char16_t> out, std::u16string_view format,
                       std::span<const FormatArgument<char16_t>> arguments);

// Writes the text and a terminator when both fit `buffer`.
int FormatBounded(std::span<char> buffer, std::string_view format,
                  std::span<const FormatArgument<char>> arguments);
int FormatBounded(std::span<char16_t> buffer, std::u16string_view format,
                  std::span<const FormatArgument<char16_t>> arguments);

// Both fill `buffer` (its size is the capacity, terminator included) and return the
// number of characters written without the terminator. A text that does not fit
// leaves the empty string and -1; nothing is ever cut.
template <class... Arguments>
int FormatTextA(std::span<char> buffer,
                CheckedFormat<char, std::type_identity_t<Arguments>...> format,
                const Arguments&... arguments) {
  const FormatArguments<char, sizeof...(Arguments)> list{ToFormatArgument<char>(arguments)...};
  return FormatBounded(buffer, format.text(), list);
}
template <class... Arguments>
int FormatTextW(std::span<char16_t> buffer,
                CheckedFormat<char16_t, std::type_identity_t<Arguments>...> format,
                const Arguments&... arguments) {
  const FormatArguments<char16_t, sizeof...(Arguments)> list{
      ToFormatArgument<char16_t>(arguments)...};
  return FormatBounded(buffer, format.text(), list);
}

}  // namespace talvorn
