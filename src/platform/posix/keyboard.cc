#include "platform/keyboard.h"

#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <array>

#include "platform/posix/io.h"
#include "platform/posix/key_decoder.h"
#include "platform/posix/wait.h"

namespace talvorn::platform {
namespace {

// A terminal that another program of its session has would stop us for changing it.
bool IsOurs() {
  const pid_t owner = tcgetpgrp(STDIN_FILENO);
  return isatty(STDIN_FILENO) != 0 && (owner < 0 || owner == getpgrp());
}

}  // namespace

struct Keyboard::State {
  termios before{};
  std::string bytes;  // of keys that are not whole yet

  ~State() {
    if (IsOurs()) tcsetattr(STDIN_FILENO, TCSADRAIN, &before);
  }

  // The terminal for single keys; none on failure. In the background this stops the program.
  static std::unique_ptr<State> TakeTerminal() {
    termios before{};
    if (tcgetattr(STDIN_FILENO, &before) != 0) return nullptr;
    termios single = before;
    single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    single.c_cc[VMIN] = 0;
    single.c_cc[VTIME] = 0;
    single.c_cc[VSUSP] = _POSIX_VDISABLE;
    if (Retried([&] { return tcsetattr(STDIN_FILENO, TCSADRAIN, &single); }) != 0) return nullptr;
    auto state = std::make_unique<State>();
    state->before = before;
    return state;
  }
};

Keyboard::Keyboard() {
  if (IsOurs()) state_ = State::TakeTerminal();
}

Keyboard::~Keyboard() = default;

std::vector<KeyPress> Keyboard::Take() {
  if (!valid()) return {};
  std::array<char, 256> buffer;
  while (WaitForDescriptor(STDIN_FILENO, POLLIN, 0) == WaitStatus::kSignalled) {
    const ssize_t size = Retried([&] { return read(STDIN_FILENO, buffer.data(), buffer.size()); });
    if (size <= 0) {  // the terminal has gone
      state_.reset();
      return {};
    }
    state_->bytes.append(buffer.data(), static_cast<std::size_t>(size));
  }
  return TakeKeys(state_->bytes);
}

void Keyboard::Suspend() {
  state_.reset();
  kill(0, SIGTSTP);  // the whole job, as the terminal would
  state_ = State::TakeTerminal();
}

std::intptr_t Keyboard::waitHandle() const { return valid() ? STDIN_FILENO : kNoWaitHandle; }

}  // namespace talvorn::platform
