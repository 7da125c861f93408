#include "client/item_digest.h"

#include "platform/digest.h"

namespace talvorn {

std::string ItemDigest(const DeviceItem& item) {
  static const platform::DigestProvider provider;
  platform::Sha1Digest digest{};
  if (!provider.valid() || !provider.Sha1(item.identity(), digest)) return {};
  return HexText(digest);
}

std::string HexText(std::span<const std::byte> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const std::byte byte : bytes) {
    text.push_back(kDigits[std::to_integer<unsigned>(byte) >> 4]);
    text.push_back(kDigits[std::to_integer<unsigned>(byte) & 0xF]);
  }
  return text;
}

}  // namespace talvorn
