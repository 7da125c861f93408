#include "devices/item_record.h"

#include <gtest/gtest.h>

#include <vector>

#include "devices/testing_items.h"

namespace talvorn {
namespace {

using testing::MakeItem;

std::vector<std::byte> Chain(std::initializer_list<std::vector<std::byte>> items) {
  std::vector<std::byte> chain;
  for (const auto& item : items) chain.insert(chain.end(), item.begin(), item.end());
  return chain;
}

std::size_t ItemsIn(std::span<const std::byte> chain) {
  std::size_t count = 0;
  ForEachItem(chain, [&](const ItemView&) { ++count; });
  return count;
}

TEST(ItemRecord, AChainIsWalkedInOrderAsFarAsItWasReceived) {
  const auto chain = Chain({MakeItem(80, 1, 100), MakeItem(80, 2, 100), MakeItem(80, 3)});
  std::vector<std::byte> fills;
  ForEachItem(chain, [&](const ItemView& item) { fills.push_back(item.bytes().back()); });
  EXPECT_EQ(fills, (std::vector{std::byte{1}, std::byte{2}, std::byte{3}}));
  for (std::size_t size = 0; size <= chain.size(); ++size)
    EXPECT_EQ(ItemsIn(std::span(chain).first(size)), size / 100) << size;
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
