#include "platform/posix/key_decoder.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

namespace talvorn::platform {
namespace {

constexpr char kSuspendByte = '\x1a';
constexpr char kEscapeByte = '\x1b';

// Behind "ESC [" or "ESC O".
std::optional<Key> KeyOf(std::string_view sequence) {
  constexpr std::pair<std::string_view, Key> kSequences[] = {
      {"A", Key::kUp},      {"B", Key::kDown},     {"H", Key::kHome},  {"F", Key::kEnd},
      {"1~", Key::kHome},   {"4~", Key::kEnd},     {"7~", Key::kHome}, {"8~", Key::kEnd},
      {"5~", Key::kPageUp}, {"6~", Key::kPageDown}};
  for (const auto& [text, key] : kSequences)
    if (text == sequence) return key;
  return std::nullopt;
}

// The size of a character by its first byte; a byte that begins none is one by itself.
std::size_t SizeOf(char first) {
  const auto byte = static_cast<unsigned char>(first);
  return byte < 0xC2 || byte > 0xF4 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
}

// A sequence at the front, which is an escape; none while it is not whole.
std::optional<std::size_t> SizeOfSequence(std::string_view bytes) {
  if (bytes.size() == 1) return 1;
  if (bytes[1] != '[' && bytes[1] != 'O') return 1;
  const auto end =
      std::find_if(bytes.begin() + 2, bytes.end(), [](char c) { return c >= '@' && c <= '~'; });
  if (end == bytes.end()) return std::nullopt;
  return static_cast<std::size_t>(end - bytes.begin()) + 1;
}

}  // namespace

std::vector<KeyPress> TakeKeys(std::string& bytes) {
  std::vector<KeyPress> keys;
  std::string_view rest = bytes;
  while (!rest.empty()) {
    const char first = rest[0];
    std::size_t size = 1;
    if (first == kEscapeByte) {
      const auto sequence = SizeOfSequence(rest);
      if (!sequence) break;
      size = *sequence;
      const auto key = size == 1 ? std::optional(Key::kEscape) : KeyOf(rest.substr(2, size - 2));
      if (key) keys.push_back({*key});
    } else if (first == '\r' || first == '\n') {
      keys.push_back({Key::kEnter});
    } else if (first == '\b' || first == '\x7f') {
      keys.push_back({Key::kBackspace});
    } else if (first == kSuspendByte) {
      keys.push_back({Key::kSuspend});
    } else if (static_cast<unsigned char>(first) >= ' ') {
      size = SizeOf(first);
      if (size > rest.size()) break;
      const bool whole = static_cast<unsigned char>(first) < 0x80 || size > 1;
      if (whole) keys.push_back({Key::kCharacter, std::string(rest.substr(0, size))});
    }
    rest.remove_prefix(size);
  }
  bytes.erase(0, bytes.size() - rest.size());
  return keys;
}

}  // namespace talvorn::platform
