// Structures that begin with their size, as the caller was compiled, which may be another than
// the library's: both copy what both know.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>

#include "talvorn/talvorn.h"

namespace talvorn {

// The size of a structure in the first version of the library, which no caller's falls short of.
template <class Structure>
inline constexpr std::size_t kFirstSize = sizeof(Structure);

// What the caller asks for; none is the defaults.
template <class Structure>
[[nodiscard]] talvorn_status TakeOptions(const Structure* given, Structure& options) {
  options = {};
  if (given == nullptr) return TALVORN_OK;
  if (given->size < kFirstSize<Structure>) return TALVORN_BAD_ARGUMENT;
  std::memcpy(&options, given, std::min(given->size, sizeof(Structure)));
  const auto whole = std::span(reinterpret_cast<const std::byte*>(given), given->size);
  const auto unknown = whole.subspan(std::min(whole.size(), sizeof(Structure)));
  const bool asked =
      std::ranges::any_of(unknown, [](std::byte byte) { return byte != std::byte{}; });
  return asked ? TALVORN_NOT_SUPPORTED : TALVORN_OK;
}

// Fills in what the caller's structure has room for.
template <class Structure>
[[nodiscard]] talvorn_status Fill(Structure* out, const Structure& value) {
  if (out == nullptr || out->size < kFirstSize<Structure>) return TALVORN_BAD_ARGUMENT;
  const std::size_t size = out->size;
  std::memset(static_cast<void*>(out), 0, size);
  std::memcpy(static_cast<void*>(out), &value, std::min(size, sizeof(Structure)));
  out->size = size;
  return TALVORN_OK;
}

}  // namespace talvorn
