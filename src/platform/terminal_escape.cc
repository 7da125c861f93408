#include "platform/terminal_escape.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

// The first and the last of each range.
constexpr char32_t kUnsafe[][2] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0xAD, 0xAD},
                                   {0x061C, 0x061C}, {0x115F, 0x1160}, {0x180B, 0x180F},
                                   {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F},
                                   {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE0FFF}};

std::string Escaped(char32_t c) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), c < 0x100 ? "\\x%02x" : "\\u%04x",
                static_cast<unsigned int>(c));
  return text.data();
}

}  // namespace

bool IsUnsafe(char32_t character) {
  return std::ranges::any_of(kUnsafe, [character](const auto& range) {
    return character >= range[0] && character <= range[1];
  });
}

std::string EscapeForTerminal(std::u16string_view text, std::u16string_view kept) {
  std::string escaped;
  while (!text.empty()) {
    const std::u16string_view before = text;
    const char32_t c = TakeCharacter(text);
    const std::u16string_view units = before.substr(0, before.size() - text.size());
    const bool plain = !IsUnsafe(c) || kept.find(units) != kept.npos;
    escaped += plain ? WideToUtf8(units) : Escaped(c);
  }
  return escaped;
}

}  // namespace talvorn::platform
