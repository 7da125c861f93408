// Owners of native handles. Each kind of handle that has a value for "none" and a
// call that closes it is a policy; owners of different kinds are different types.
#pragma once

#include <utility>

#include "platform/win32/windows_api.h"

namespace talvorn::platform {

// `Policy`: the type `Native`, `None()` and `Close(Native)`; Close is never called
// with None().
template <typename Policy>
class Handle {
 public:
  using Native = typename Policy::Native;

  Handle() = default;  // none
  explicit Handle(Native native) : native_(native) {}
  ~Handle() { Close(); }
  Handle(Handle&& other) noexcept : native_(other.Release()) {}
  Handle& operator=(Handle&& other) noexcept {
    if (this != &other) {
      Close();
      native_ = other.Release();
    }
    return *this;
  }

  [[nodiscard]] bool valid() const { return native_ != Policy::None(); }
  [[nodiscard]] Native get() const { return native_; }
  [[nodiscard]] Native Release() { return std::exchange(native_, Policy::None()); }
  void Close() {
    if (valid()) Policy::Close(Release());
  }
  // Where a call that makes a handle stores it. Closes what is held.
  [[nodiscard]] Native* Receive() {
    Close();
    return &native_;
  }

 private:
  Native native_ = Policy::None();
};

// Events, mutexes, threads, timers, tokens: none is null.
struct KernelObjectPolicy {
  using Native = HANDLE;
  static Native None() { return nullptr; }
  static void Close(Native handle) { CloseHandle(handle); }
};
using KernelHandle = Handle<KernelObjectPolicy>;

// Files, pipes, mailslots: none is INVALID_HANDLE_VALUE.
struct FilePolicy {
  using Native = HANDLE;
  static Native None() { return INVALID_HANDLE_VALUE; }
  static void Close(Native handle) { CloseHandle(handle); }
};
using FileHandle = Handle<FilePolicy>;

// Sockets: none is INVALID_SOCKET.
struct SocketPolicy {
  using Native = SOCKET;
  static Native None() { return INVALID_SOCKET; }
  static void Close(Native handle) { closesocket(handle); }
};
using SocketHandle = Handle<SocketPolicy>;

// Events that sockets signal: none is WSA_INVALID_EVENT.
struct SocketEventPolicy {
  using Native = WSAEVENT;
  static Native None() { return WSA_INVALID_EVENT; }
  static void Close(Native handle) { WSACloseEvent(handle); }
};
using SocketEventHandle = Handle<SocketEventPolicy>;

}  // namespace talvorn::platform
