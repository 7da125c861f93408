// The items that a device attaches to its record. An item is 20 + bodyLength bytes
// long; its words are big-endian, the rest is carried unchanged:
//
//   offset width word
//        0     4 hashLength  bytes of the item, from its start, that identify it
//       16     4 nextOffset  distance to the next item of the chain, 0 for the last
//       20     4 bodyLength  length of the body, which begins with this word
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "support/byte_io.h"

namespace talvorn {

inline constexpr std::size_t kItemHeaderSize = 20;
inline constexpr std::size_t kItemWordsSize = 24;  // header and bodyLength
inline constexpr std::size_t kItemNextOffsetAt = 16;
inline constexpr std::size_t kItemBodyLengthAt = 20;
// All items of a record come in one datagram, or in one reply as long as that.
inline constexpr std::size_t kLargestItemChain = 1'500;

// An item that lies wholly inside received bytes. Valid as long as those.
struct ItemView {
  // From the item's start to the end of what was received with it.
  std::span<const std::byte> available;
  std::uint32_t hashLength = 0;
  std::uint32_t nextOffset = 0;
  std::uint32_t bodyLength = 0;

  [[nodiscard]] std::size_t size() const { return kItemHeaderSize + bodyLength; }
  [[nodiscard]] std::span<const std::byte> bytes() const { return available.first(size()); }
  // What identifies the item; may reach beyond the item's own bytes.
  [[nodiscard]] std::span<const std::byte> identity() const { return available.first(hashLength); }
};

// The item at the start of `data`; none when its words, its 20 + bodyLength bytes or
// its first hashLength bytes do not lie inside.
[[nodiscard]] inline std::optional<ItemView> ParseItem(std::span<const std::byte> data) {
  if (data.size() < kItemWordsSize) return std::nullopt;
  ItemView item{.available = data,
                .hashLength = U32BigAt(data, 0),
                .nextOffset = U32BigAt(data, kItemNextOffsetAt),
                .bodyLength = U32BigAt(data, kItemBodyLengthAt)};
  const std::uint64_t size = std::uint64_t{kItemHeaderSize} + item.bodyLength;
  if (size > data.size() || item.hashLength > data.size()) return std::nullopt;
  return item;
}

// Calls `use` with every item of the chain that begins at the start of `data`, in
// order, up to the last one or the first that does not lie inside. An item whose body
// has no room for its own length word is left out: readers of a snapshot would lose
// their way there. Items may overlap, but hand on no more than a datagram carries.
template <class Use>
void ForEachItem(std::span<const std::byte> data, Use use) {
  std::size_t room = kLargestItemChain;
  while (const std::optional<ItemView> item = ParseItem(data)) {
    if (item->size() > room) return;
    if (item->size() >= kItemWordsSize) {
      room -= item->size();
      use(*item);
    }
    if (item->nextOffset == 0 || item->nextOffset > data.size()) return;
    data = data.subspan(item->nextOffset);
  }
}

}  // namespace talvorn
