// A static-devices file of any content: every section has a name, and an address that fits.
#include <string_view>

#include "fuzz_target.h"
#include "platform/posix/forms/device_text.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace talvorn::platform;
  for (const ListedDevice& device :
       ParseDeviceText(std::string_view(reinterpret_cast<const char*>(data), size))) {
    FUZZ_EXPECT(!device.name.empty() && device.name.find(u'\0') == device.name.npos);
    FUZZ_EXPECT(device.address.size() < kAddressCapacity);
  }
  return 0;
}
