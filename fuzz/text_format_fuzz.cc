// Bounded formatting of any text into any capacity: whole and terminated, or empty.
#include <string>
#include <vector>

#include "fuzz_target.h"
#include "support/text_format.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace talvorn;
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  std::vector<char> buffer(data[0] + std::size_t{1}, '#');
  const std::span<char> room = std::span(buffer).first(data[0]);
  const int written = FormatTextA(room, "%s|%07u", text, std::uint32_t{data[0]});
  FUZZ_EXPECT(buffer.back() == '#');
  if (room.empty()) return 0;
  if (written < 0) {
    FUZZ_EXPECT(text.size() + 8 >= room.size() && room[0] == '\0');
  } else {
    FUZZ_EXPECT(static_cast<std::size_t>(written) == text.size() + 8);
    FUZZ_EXPECT(room[static_cast<std::size_t>(written)] == '\0');
  }
  return 0;
}
