#include "simulator/hex_lines.h"

#include <algorithm>

#include "command_line/concat.h"

namespace talvorn {
namespace {

int DigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool ParseLine(std::string_view digits, std::vector<std::byte>& datagram) {
  if (digits.size() % 2 != 0) return false;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const int high = DigitValue(digits[i]);
    const int low = DigitValue(digits[i + 1]);
    if (high < 0 || low < 0) return false;
    datagram.push_back(static_cast<std::byte>(high * 16 + low));
  }
  return true;
}

}  // namespace

HexLines ParseHexLines(std::string_view text) {
  HexLines lines;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string digits(text.substr(0, std::min(text.find('#'), end)));
    text.remove_prefix(std::min(end + 1, text.size()));
    std::erase_if(digits, [](char c) { return c == ' ' || c == '\t' || c == '\r'; });
    if (digits.empty()) continue;

    std::vector<std::byte> datagram;
    if (digits != "-" && !ParseLine(digits, datagram)) {
      lines.mistake =
          Concat({"line ", std::to_string(number), " is not made of hexadecimal bytes"});
      return lines;
    }
    lines.datagrams.push_back(std::move(datagram));
  }
  return lines;
}

}  // namespace talvorn
