// A device on the loopback interface, new with each of its answers.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "devices/device_record.h"
#include "discovery/datagram.h"
#include "platform/socket.h"
#include "testing/socket_library.h"

namespace talvorn::testing {

class LoopbackDevice {
 public:
  LoopbackDevice() {
    EXPECT_TRUE(socket_.SetMulticastLoopback(true) && socket_.SetMulticastInterface(interface));
  }

  // Sends its record in a datagram of `size` bytes.
  void Answer(std::size_t size = kDeviceRecordSize) {
    DeviceRecord record;
    record.length = kDeviceRecordSize;
    record.magic.Assign(kMagic);
    record.type.Assign(kTypeRecord);
    record.deviceSerial.Assign(std::to_string(++answers));
    std::vector<std::byte> datagram(size);
    EncodeDeviceRecord(record, std::span(datagram).first<kDeviceRecordSize>());
    const auto group =
        platform::SocketAddress::Ipv4(platform::ParseIpv4(kResponseGroupIpv4), kDiscoveryPort);
    EXPECT_EQ(socket_.SendTo(datagram, group), size);
  }

  const std::uint32_t interface = platform::ParseIpv4("127.0.0.1");
  std::uint32_t answers = 0;

 private:
  platform::Socket socket_ =
      platform::Socket::Create(platform::AddressFamily::kIpv4, platform::SocketType::kDatagram);
};

}  // namespace talvorn::testing
