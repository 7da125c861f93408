// Keys of the terminal that standard input is, one by one and not shown.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/waitable.h"

namespace talvorn::platform {

enum class Key {
  kCharacter,
  kEnter,
  kEscape,
  kBackspace,
  kUp,
  kDown,
  kPageUp,
  kPageDown,
  kHome,
  kEnd,
  kSuspend,  // Ctrl-Z, where programs can be stopped and continued
};

struct KeyPress {
  Key key = Key::kCharacter;
  std::string character{};  // kCharacter: UTF-8, no control

  bool operator==(const KeyPress&) const = default;
};

// Takes the terminal from its line editing, and gives it back as it was at the end. Ctrl-C stays
// what it is; Ctrl-Z is a key. One object at a time.
class Keyboard final : public Waitable {
 public:
  Keyboard();
  ~Keyboard();
  Keyboard(const Keyboard&) = delete;
  Keyboard& operator=(const Keyboard&) = delete;

  // False when standard input is no terminal, another program has it, or it has gone.
  [[nodiscard]] bool valid() const { return state_ != nullptr; }

  // The keys that were pressed. Does not wait.
  [[nodiscard]] std::vector<KeyPress> Take();

  // Gives the terminal back, stops this program until somebody continues it in the foreground, and
  // takes the terminal again.
  void Suspend();

  // Signalled when there may be some.
  [[nodiscard]] std::intptr_t waitHandle() const override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace talvorn::platform
