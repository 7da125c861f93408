#include "devices/item_record.h"

#include <gtest/gtest.h>

#include <vector>

#include "devices/testing_items.h"

namespace talvorn {
namespace {

using testing::MakeItem;

using Bytes = std::vector<std::byte>;

std::size_t ItemsIn(std::span<const std::byte> chain) {
  std::size_t count = 0;
  ForEachItem(chain, [&](const ItemView&) { ++count; });
  return count;
}

TEST(ItemRecord, AnItemThatCannotBeReadAgainIsLeftOutAlone) {
  for (const std::uint32_t tooShort : {0u, 1u, 3u}) {
    Bytes chain = MakeItem(80, 1, 100);
    Bytes skipped = MakeItem(20, 2, 40);
    ByteWriter{std::span(skipped).subspan(kItemBodyLengthAt)}.U32Big(tooShort);
    chain.insert(chain.end(), skipped.begin(), skipped.end());
    const Bytes last = MakeItem(80, 3);
    chain.insert(chain.end(), last.begin(), last.end());

    std::vector<int> handedOn;
    ForEachItem(chain, [&](const ItemView& item) {
      handedOn.push_back(std::to_integer<int>(item.bytes().back()));
    });
    EXPECT_EQ(handedOn, (std::vector{1, 3})) << tooShort;
  }
}

TEST(ItemRecord, ItemsThatOverlapHandOnNoMoreThanADatagramCarries) {
  Bytes chain(kLargestItemChain);
  for (std::size_t at = 0; at + kItemWordsSize <= chain.size(); at += kItemWordsSize) {
    ByteWriter writer{std::span(chain).subspan(at)};
    writer.Zero(kItemNextOffsetAt);
    writer.U32Big(kItemWordsSize);
    writer.U32Big(static_cast<std::uint32_t>(chain.size() - at - kItemHeaderSize));
  }
  EXPECT_EQ(ItemsIn(chain), 1u) << "each reaches to the end of the chain";

  chain.clear();
  for (std::size_t left = kLargestItemChain / kItemWordsSize; left > 0; --left) {
    const Bytes item = MakeItem(4, 1, left > 1 ? kItemWordsSize : 0);
    chain.insert(chain.end(), item.begin(), item.end());
  }
  EXPECT_EQ(ItemsIn(chain), kLargestItemChain / kItemWordsSize) << "a datagram full of items";
}

}  // namespace
}  // namespace talvorn
