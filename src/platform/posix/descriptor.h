// Owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace talvorn::platform {

class Descriptor {
 public:
  Descriptor() = default;  // none
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { Close(); }
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      Close();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }

  [[nodiscard]] bool valid() const { return fd_ >= 0; }
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }
  void Close() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }

 private:
  int fd_ = -1;
};

}  // namespace talvorn::platform
