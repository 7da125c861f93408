// Reader and writer for fields in a block of bytes. Every access is checked
// against what is left; byte orders are in the names.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace talvorn {

// Reads fields in order. After one read past the end every later read yields zero
// and ok() stays false, so that callers check once.
class ByteReader {
 public:
  explicit ByteReader(std::span<const std::byte> data) : rest_(data) {}

  std::uint32_t U32Big() {
    const auto b = Take(4);
    if (b.empty()) return 0;
    return Octet(b[0]) << 24 | Octet(b[1]) << 16 | Octet(b[2]) << 8 | Octet(b[3]);
  }
  std::uint32_t U32Little() {
    const auto b = Take(4);
    if (b.empty()) return 0;
    return Octet(b[3]) << 24 | Octet(b[2]) << 16 | Octet(b[1]) << 8 | Octet(b[0]);
  }
  std::uint16_t U16Little() {
    const auto b = Take(2);
    if (b.empty()) return 0;
    return static_cast<std::uint16_t>(Octet(b[1]) << 8 | Octet(b[0]));
  }
  // The next `size` bytes; empty when fewer are left.
  std::span<const std::byte> Take(std::size_t size) {
    if (!ok_ || size > rest_.size()) {
      ok_ = false;
      return {};
    }
    const auto taken = rest_.first(size);
    rest_ = rest_.subspan(size);
    return taken;
  }
  void Skip(std::size_t size) { (void)Take(size); }

  [[nodiscard]] std::size_t remaining() const { return ok_ ? rest_.size() : 0; }
  [[nodiscard]] bool ok() const { return ok_; }

 private:
  static std::uint32_t Octet(std::byte b) { return std::to_integer<std::uint32_t>(b); }

  std::span<const std::byte> rest_;
  bool ok_ = true;
};

// Writes fields in order into a block of fixed size. After one write past the end
// every later write is dropped and ok() stays false.
class ByteWriter {
 public:
  explicit ByteWriter(std::span<std::byte> data) : data_(data) {}

  void U32Big(std::uint32_t value) {
    Bytes(std::array{Octet(value >> 24), Octet(value >> 16), Octet(value >> 8), Octet(value)});
  }
  void U32Little(std::uint32_t value) {
    Bytes(std::array{Octet(value), Octet(value >> 8), Octet(value >> 16), Octet(value >> 24)});
  }
  void U16Little(std::uint16_t value) {
    Bytes(std::array{Octet(value), Octet(static_cast<std::uint32_t>(value) >> 8)});
  }
  void Bytes(std::span<const std::byte> bytes) {
    const auto room = Reserve(bytes.size());
    if (!room.empty()) std::memcpy(room.data(), bytes.data(), bytes.size());
  }
  // `text` in a field of `width` bytes, cut to width - 1, the rest zero.
  void Text(std::string_view text, std::size_t width) {
    const auto room = Reserve(width);
    if (room.empty()) return;
    const std::size_t length = std::min(text.size(), width - 1);
    std::memset(room.data(), 0, width);
    if (length > 0) std::memcpy(room.data(), text.data(), length);
  }
  void Zero(std::size_t size) {
    const auto room = Reserve(size);
    if (!room.empty()) std::memset(room.data(), 0, size);
  }

  [[nodiscard]] std::size_t written() const { return written_; }
  [[nodiscard]] bool ok() const { return ok_; }

 private:
  static std::byte Octet(std::uint32_t value) { return static_cast<std::byte>(value & 0xFF); }

  std::span<std::byte> Reserve(std::size_t size) {
    if (!ok_ || size > data_.size() - written_) {
      ok_ = false;
      return {};
    }
    const auto room = data_.subspan(written_, size);
    written_ += size;
    return room;
  }

  std::span<std::byte> data_;
  std::size_t written_ = 0;
  bool ok_ = true;
};

// The 32-bit big-endian number at `offset`, or zero when it lies outside.
[[nodiscard]] inline std::uint32_t U32BigAt(std::span<const std::byte> data, std::size_t offset) {
  return offset <= data.size() ? ByteReader(data.subspan(offset)).U32Big() : 0;
}

[[nodiscard]] inline std::string_view AsText(std::span<const std::byte> data) {
  return {reinterpret_cast<const char*>(data.data()), data.size()};
}
[[nodiscard]] inline std::span<const std::byte> AsBytes(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

}  // namespace talvorn
