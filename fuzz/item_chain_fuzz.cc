// A chain of items of unknown lengths: every item that is handed on lies inside and can
// be read again, together they are no more than a datagram carries, and the walk ends.
#include "devices/item_record.h"
#include "fuzz_target.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace talvorn;
  const auto chain = std::as_bytes(std::span(data, size));
  std::size_t handedOn = 0;
  ForEachItem(chain, [&](const ItemView& item) {
    handedOn += item.size();
    FUZZ_EXPECT(item.size() >= kItemWordsSize);
    FUZZ_EXPECT(item.bytes().data() >= chain.data());
    FUZZ_EXPECT(item.bytes().data() + item.bytes().size() <= chain.data() + chain.size());
    FUZZ_EXPECT(item.identity().data() + item.identity().size() <= chain.data() + chain.size());
  });
  FUZZ_EXPECT(handedOn <= kLargestItemChain);
  return 0;
}
