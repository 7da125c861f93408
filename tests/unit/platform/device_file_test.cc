#include "platform/device_file.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/text_encoding.h"
#include "testing/scratch_machine.h"

namespace talvorn::platform {
namespace {

class DeviceFile : public ::testing::Test {
 protected:
  // The devices of a file with this content, each as "name=address" and a comma.
  [[nodiscard]] std::string Listing(std::string_view bytes) const {
    const std::string path = (machine_.root() / "devices.ini").string();
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    std::string listing;
    for (const ListedDevice& device : ReadDeviceFile(Utf8ToWide(path)))
      listing += WideToUtf8(device.name) + '=' + WideToUtf8(device.address) + ',';
    return listing;
  }

  testing::ScratchMachine machine_;
};

TEST_F(DeviceFile, HasItsSectionsInOrderEachWithItsFirstAddress) {
  EXPECT_EQ(Listing("ignored=1\r\n; [comment]\r\n[ b ] ; x\r\n[]\n[open\n=\n"
                    "[a]\nipADDRESS = \" 10.0.0.1 \" \nIpAddress=2\n[A]\nIpAddress=3\n"
                    "[c]\nOther=4\n;IpAddress=5\r[d]\nIpAddress='6'"),
            "b=,a= 10.0.0.1 ,A= 10.0.0.1 ,c=,d=6,");
  EXPECT_TRUE(ReadDeviceFile(u"no such file").empty());
}

}  // namespace
}  // namespace talvorn::platform
