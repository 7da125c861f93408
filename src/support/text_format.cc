#include "support/text_format.h"

#include <algorithm>
#include <array>

namespace talvorn {
namespace {

// Counts every character and keeps those that fit.
template <class Char>
class CountingWriter {
 public:
  explicit CountingWriter(std::span<Char> out) : out_(out) {}

  void Put(Char c) {
    if (length_ < out_.size()) out_[length_] = c;
    ++length_;
  }
  void Put(std::basic_string_view<Char> text) {
    for (const Char c : text) Put(c);
  }
  void Repeat(Char c, std::size_t count) {
    while (count-- > 0) Put(c);
  }
  [[nodiscard]] std::size_t length() const { return length_; }

 private:
  std::span<Char> out_;
  std::size_t length_ = 0;
};

template <class Char>
void PutNumber(CountingWriter<Char>& writer, const FormatConversion& conversion,
               std::uint64_t number) {
  const bool negative = conversion.type == 'd' && static_cast<std::int64_t>(number) < 0;
  std::uint64_t magnitude = negative ? 0 - number : number;
  const unsigned base = conversion.type == 'x' || conversion.type == 'X' ? 16 : 10;
  const char* digits = conversion.type == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";

  std::array<Char, 20> reversed{};  // a 64-bit number has at most 20 decimal digits
  std::size_t count = 0;
  do {
    reversed[count++] = static_cast<Char>(digits[magnitude % base]);
    magnitude /= base;
  } while (magnitude != 0);

  const std::size_t length = count + (negative ? 1 : 0);
  const std::size_t padding = conversion.width > length ? conversion.width - length : 0;
  if (!conversion.zeroPad) writer.Repeat(Char(' '), padding);
  if (negative) writer.Put(Char('-'));
  if (conversion.zeroPad) writer.Repeat(Char('0'), padding);
  while (count > 0) writer.Put(reversed[--count]);
}

template <class Char>
std::size_t FormatWith(std::span<Char> out, std::basic_string_view<Char> format,
                       std::span<const FormatArgument<Char>> arguments) {
  CountingWriter<Char> writer(out);
  std::size_t used = 0;
  while (!format.empty()) {
    const std::size_t literal = std::min(format.find(Char('%')), format.size());
    writer.Put(format.substr(0, literal));
    format.remove_prefix(literal);
    if (format.empty()) break;

    const FormatConversion conversion = ParseConversion(format);
    format.remove_prefix(conversion.length);
    if (conversion.percent) {
      writer.Put(Char('%'));
      continue;
    }
    const FormatArgument<Char>& argument = arguments[used++];
    if (argument.kind == FormatKind::kText) {
      const std::size_t length = argument.text.size();
      writer.Repeat(Char(' '), conversion.width > length ? conversion.width - length : 0);
      writer.Put(argument.text);
    } else {
      PutNumber(writer, conversion, argument.number);
    }
  }
  return writer.length();
}

template <class Char>
int FormatBoundedWith(std::span<Char> buffer, std::basic_string_view<Char> format,
                      std::span<const FormatArgument<Char>> arguments) {
  if (buffer.empty()) return -1;
  const std::size_t length = FormatWith(buffer, format, arguments);
  if (length >= buffer.size()) {
    buffer[0] = Char{0};
    return -1;
  }
  buffer[length] = Char{0};
  return static_cast<int>(length);
}

}  // namespace

std::size_t FormatInto(std::span<char> out, std::string_view format,
                       std::span<const FormatArgument<char>> arguments) {
  return FormatWith(out, format, arguments);
}
std::size_t FormatInto(std::span<char16_t> out, std::u16string_view format,
                       std::span<const FormatArgument<char16_t>> arguments) {
  return FormatWith(out, format, arguments);
}
int FormatBounded(std::span<char> buffer, std::string_view format,
                  std::span<const FormatArgument<char>> arguments) {
  return FormatBoundedWith(buffer, format, arguments);
}
int FormatBounded(std::span<char16_t> buffer, std::u16string_view format,
                  std::span<const FormatArgument<char16_t>> arguments) {
  return FormatBoundedWith(buffer, format, arguments);
}

}  // namespace talvorn
