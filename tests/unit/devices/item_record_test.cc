#include "devices/item_record.h"

#include <gtest/gtest.h>

#include "devices/testing_items.h"

namespace talvorn {
namespace {

using testing::MakeItem;

std::size_t ItemsIn(std::span<const std::byte> chain) {
  std::size_t count = 0;
  ForEachItem(chain, [&](const ItemView&) { ++count; });
  return count;
}

TEST(ItemRecord, LyingLengthsEndTheWalk) {
  const std::uint32_t lies[] = {0, 3, 81, 0x7FFFFFFF, 0xFFFFFFEB, 0xFFFFFFEC, 0xFFFFFFFF};
  for (const std::uint32_t lie : lies) {
    auto item = MakeItem(80, 1);
    ByteWriter{std::span(item).subspan(20)}.U32Big(lie);
    EXPECT_EQ(ItemsIn(item), 0u) << "bodyLength " << lie;

    EXPECT_EQ(ItemsIn(MakeItem(80, 1, 0, std::max(lie, 101u))), 0u) << "hashLength " << lie;
    if (lie > 80) {
      EXPECT_EQ(ItemsIn(MakeItem(80, 1, lie)), 1u) << "nextOffset " << lie;
    }
  }
  EXPECT_EQ(ItemsIn(MakeItem(3, 1)), 0u) << "a body must hold its own length word";
}

}  // namespace
}  // namespace talvorn
