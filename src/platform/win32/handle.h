// Owners of native handles. Owners of different kinds are different types.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/win32/windows_api.h"

namespace talvorn::platform {

// `close` closes a handle of type `T`; `none` is the value of no handle, as a number.
template <typename T, auto close, std::intptr_t none = 0>
class Handle {
 public:
  Handle() = default;  // none
  explicit Handle(T native) : native_(native) {}
  ~Handle() { Close(); }
  Handle(Handle&& other) noexcept : native_(other.Release()) {}
  Handle& operator=(Handle&& other) noexcept {
    if (this != &other) {
      Close();
      native_ = other.Release();
    }
    return *this;
  }

  [[nodiscard]] bool valid() const { return native_ != None(); }
  [[nodiscard]] T get() const { return native_; }
  [[nodiscard]] T Release() { return std::exchange(native_, None()); }
  void Close() {
    if (valid()) (void)close(Release());
  }
  // Where a call that makes a handle stores it. Closes what is held.
  [[nodiscard]] T* Receive() {
    Close();
    return &native_;
  }

 private:
  static T None() { return (T)none; }  // a pointer or a number

  T native_ = None();
};

// Events, mutexes, threads, timers, tokens.
using KernelHandle = Handle<HANDLE, CloseHandle>;
// Files, pipes, mailslots: none is INVALID_HANDLE_VALUE.
using FileHandle = Handle<HANDLE, CloseHandle, -1>;

}  // namespace talvorn::platform
