// A client's request: what is accepted is within the limits and survives encoding.
#include "exchange/messages/messages.h"
#include "fuzz_target.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace talvorn;
  const auto request = DecodeRequest(std::as_bytes(std::span(data, size)));
  if (!request) return 0;
  FUZZ_EXPECT(request->replyMailslot.size() <= kReplyNameMaxLength);
  FUZZ_EXPECT(request->command.size() <= kCommandMaxLength);
  const auto encoded = EncodeRequest(*request);
  FUZZ_EXPECT(encoded.has_value());
  const auto again = DecodeRequest(*encoded);
  FUZZ_EXPECT(again && again->replyMailslot == request->replyMailslot);
  FUZZ_EXPECT(again->command == request->command);
  return 0;
}
