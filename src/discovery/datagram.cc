#include "discovery/datagram.h"

#include <algorithm>
#include <bit>

#include "devices/device_record.h"
#include "platform/address.h"
#include "support/byte_io.h"
#include "support/text_format.h"

namespace talvorn {
namespace {

constexpr std::size_t kMagicAt = 4;
constexpr std::size_t kTypeAt = 12;
constexpr std::size_t kTypeLength = 3;

using Header = std::array<std::byte, kDatagramHeaderSize>;

Header HeaderOf(std::span<const std::byte> datagram) {
  Header header{};
  std::copy_n(datagram.begin(), std::min(datagram.size(), header.size()), header.begin());
  return header;
}

std::string_view TextAt(const Header& header, std::size_t offset, std::size_t length) {
  return AsText(std::span(header).subspan(offset, length));
}

}  // namespace

std::array<std::byte, kDiscoveryRequestSize> EncodeDiscoveryRequest(
    const DiscoveryRequest& request) {
  std::array<std::byte, kDiscoveryRequestSize> bytes{};
  ByteWriter writer(bytes);
  writer.U32Big(kDiscoveryRequestSize);
  writer.Text(kMagic, 8);
  writer.Text(kTypeRequest, 4);
  writer.Bytes(request.interfaceCidr.field());
  writer.U32Big(0);
  writer.U32Big(request.timestamp);
  return bytes;
}

int PrefixLength(std::uint32_t mask) {
  const std::uint32_t hostOrder = ByteReader(std::as_bytes(std::span(&mask, 1))).U32Big();
  return std::countl_one(hostOrder);
}

FixedText<19> InterfaceCidr(std::uint32_t address, std::uint32_t mask) {
  std::array<char, FixedText<19>::kWidth> text{};
  FormatTextA(text, "%s/%d", platform::Ipv4Text(address), PrefixLength(mask));
  FixedText<19> cidr;
  cidr.Assign(text.data());
  return cidr;
}

std::uint32_t RequestTimestamp(FileTime localTime) {
  return static_cast<std::uint32_t>(localTime / platform::kFileTimePerSecond -
                                    platform::kSecondsFrom1601To1970);
}

bool AcceptDatagram(std::span<const std::byte> datagram, std::string_view magic) {
  if (datagram.size() < 4) return false;
  const Header header = HeaderOf(datagram);
  return U32BigAt(header, 0) >= kDatagramHeaderSize &&
         TextAt(header, kMagicAt, kMagic.size()) == magic;
}

bool IsAnswer(std::span<const std::byte> datagram) {
  const std::string type = DatagramType(datagram);
  return type == kTypeShortRecord || type == kTypeRecord;
}

DeviceRecord DecodeAnswer(std::span<const std::byte> datagram) {
  return DatagramType(datagram) == kTypeRecord
             ? DecodeDeviceRecord(datagram)
             : ConvertShortRecord(DecodeShortDeviceRecord(datagram));
}

std::string DatagramType(std::span<const std::byte> datagram) {
  return std::string(TextAt(HeaderOf(datagram), kTypeAt, kTypeLength));
}

}  // namespace talvorn
