// Items for tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "support/byte_io.h"

namespace talvorn::testing {

// An item of 20 + bodyLength bytes whose body is filled with `fill`; it is identified
// by all of its bytes unless `hashLength` says otherwise.
inline std::vector<std::byte> MakeItem(std::uint32_t bodyLength, std::uint8_t fill,
                                       std::uint32_t nextOffset = 0,
                                       std::optional<std::uint32_t> hashLength = std::nullopt) {
  std::vector<std::byte> item(20 + bodyLength, std::byte{fill});
  ByteWriter writer(item);
  writer.U32Big(hashLength.value_or(20 + bodyLength));
  writer.Zero(12);
  writer.U32Big(nextOffset);
  writer.U32Big(bodyLength);
  return item;
}

}  // namespace talvorn::testing
