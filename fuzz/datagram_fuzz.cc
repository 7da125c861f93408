// A datagram of the response group, from acceptance to the stored record: what is
// stored must come out of its encoding unchanged.
#include <array>

#include "devices/device_record.h"
#include "discovery/datagram.h"
#include "fuzz_target.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace talvorn;
  const auto datagram = std::as_bytes(std::span(data, size));
  if (!AcceptDatagram(datagram, kMagic)) return 0;
  FUZZ_EXPECT(size >= 4);
  const bool isShort = DatagramType(datagram) == kTypeShortRecord;
  const DeviceRecord record = isShort ? ConvertShortRecord(DecodeShortDeviceRecord(datagram))
                                      : DecodeDeviceRecord(datagram);
  FUZZ_EXPECT(!isShort || record.itemOffset == 0);
  FUZZ_EXPECT(record.deviceSerial.view().size() <= 7);
  FUZZ_EXPECT(record.hostAlias.view().size() <= 63);
  std::array<std::byte, kDeviceRecordSize> encoded{};
  EncodeDeviceRecord(record, encoded);
  FUZZ_EXPECT(DecodeDeviceRecord(encoded) == record);
  return 0;
}
