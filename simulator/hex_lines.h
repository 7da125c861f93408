// Datagrams written down as lines of hexadecimal bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace talvorn {

struct HexLines {
  std::vector<std::vector<std::byte>> datagrams;
  std::string mistake;  // empty when every line could be read
};

// One datagram per line; blanks between digits count for nothing, "-" is an empty
// datagram, '#' begins a comment, and lines without anything are passed over.
[[nodiscard]] HexLines ParseHexLines(std::string_view text);

}  // namespace talvorn
