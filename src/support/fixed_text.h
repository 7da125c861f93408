// Text in a field of fixed width, terminated by a NUL inside the field. What stands
// behind the terminator is kept, because records are handed on unchanged.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>

namespace talvorn {

template <std::size_t kFieldWidth>
class FixedText {
 public:
  static constexpr std::size_t kWidth = kFieldWidth;

  // At most kWidth - 1 characters.
  [[nodiscard]] std::string_view view() const {
    return {bytes_.data(), strnlen(bytes_.data(), kWidth - 1)};
  }
  [[nodiscard]] bool empty() const { return bytes_[0] == '\0'; }

  // Cuts to kWidth - 1 characters and zeroes the rest of the field.
  void Assign(std::string_view text) {
    bytes_.fill('\0');
    std::copy_n(text.begin(), std::min(text.size(), kWidth - 1), bytes_.begin());
  }
  // Empties the field by its first byte alone.
  void Clear() { bytes_[0] = '\0'; }

  // The field as received, of exactly kWidth bytes. A text without terminator is
  // cut to kWidth - 1 characters.
  void AssignField(std::span<const std::byte> field) {
    if (field.size() == kWidth) std::memcpy(bytes_.data(), field.data(), kWidth);
    bytes_[kWidth - 1] = '\0';
  }
  [[nodiscard]] std::span<const std::byte> field() const {
    return std::as_bytes(std::span(bytes_));
  }

  bool operator==(const FixedText&) const = default;

 private:
  std::array<char, kWidth> bytes_{};
};

}  // namespace talvorn
