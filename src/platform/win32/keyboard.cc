#include "platform/keyboard.h"

#include <array>
#include <optional>
#include <utility>

#include "platform/text_encoding.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

std::optional<Key> KeyOf(WORD code) {
  constexpr std::pair<WORD, Key> kCodes[] = {
      {VK_RETURN, Key::kEnter},  {VK_ESCAPE, Key::kEscape}, {VK_BACK, Key::kBackspace},
      {VK_UP, Key::kUp},         {VK_DOWN, Key::kDown},     {VK_PRIOR, Key::kPageUp},
      {VK_NEXT, Key::kPageDown}, {VK_HOME, Key::kHome},     {VK_END, Key::kEnd}};
  for (const auto& [known, key] : kCodes)
    if (known == code) return key;
  return std::nullopt;
}

}  // namespace

struct Keyboard::State {
  HANDLE console = nullptr;
  DWORD before = 0;
  std::u16string character{};  // the first half of one

  ~State() { SetConsoleMode(console, before); }

  std::optional<KeyPress> PressOf(const KEY_EVENT_RECORD& event) {
    if (event.bKeyDown == FALSE) return std::nullopt;
    if (const auto key = KeyOf(event.wVirtualKeyCode)) return KeyPress{.key = *key};
    const auto unit = static_cast<char16_t>(event.uChar.UnicodeChar);
    if (unit < u' ' || unit == 0x7F) return std::nullopt;
    character.push_back(unit);
    if (unit >= 0xD800 && unit < 0xDC00) return std::nullopt;
    return KeyPress{Key::kCharacter, WideToUtf8(std::exchange(character, {}))};
  }
};

Keyboard::Keyboard() {
  const HANDLE console = GetStdHandle(STD_INPUT_HANDLE);
  DWORD before = 0;
  if (GetConsoleMode(console, &before) == FALSE) return;
  const DWORD single =
      before & ~static_cast<DWORD>(ENABLE_LINE_INPUT | ENABLE_ECHO_INPUT | ENABLE_MOUSE_INPUT);
  if (SetConsoleMode(console, single) == FALSE) return;
  state_ = std::make_unique<State>();
  state_->console = console;
  state_->before = before;
}

Keyboard::~Keyboard() = default;

// Also takes what is no key, which would go on signalling.
std::vector<KeyPress> Keyboard::Take() {
  std::vector<KeyPress> keys;
  if (!valid()) return keys;
  std::array<INPUT_RECORD, 64> events;
  for (DWORD waiting = 0;
       GetNumberOfConsoleInputEvents(state_->console, &waiting) != FALSE && waiting > 0;) {
    DWORD taken = 0;
    if (ReadConsoleInputW(state_->console, events.data(), events.size(), &taken) == FALSE) break;
    for (DWORD i = 0; i < taken; ++i) {
      if (events[i].EventType != KEY_EVENT) continue;
      if (auto press = state_->PressOf(events[i].Event.KeyEvent)) keys.push_back(std::move(*press));
    }
  }
  return keys;
}

void Keyboard::Suspend() {}

std::intptr_t Keyboard::waitHandle() const {
  return valid() ? reinterpret_cast<std::intptr_t>(state_->console) : kNoWaitHandle;
}

}  // namespace talvorn::platform
