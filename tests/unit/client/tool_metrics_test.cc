#include "client/tool/metrics.h"

#include <gtest/gtest.h>

#include <vector>

namespace talvorn {
namespace {

DeviceRecord At(std::string_view ipv4, std::string_view ipv6) {
  DeviceRecord device;
  device.deviceIpv4.Assign(ipv4);
  device.deviceIpv6.Assign(ipv6);
  return device;
}

TEST(Metrics, AreInTheTextFormat) {
  const std::vector<DeviceRecord> devices = {At("10.0.0.1", ""), At("", "fd00::1"),
                                             At("10.0.0.2", ""), At("10.0.0.3", "fd00::3")};
  FleetNumbers numbers;
  numbers.locator = {"1.0\"", 1'002'003, CountDevices(devices), 7};
  numbers.locatorPresent = true;
  numbers.locators = 2;
  numbers.heard["net\"0"] = {.asked = true, .askers = {"10.0.0.9"}, .devices = {{"5", {}}}};
  numbers.receiveDrops = 12;
  numbers.takenAt = (platform::kSecondsFrom1601To1970 + 5) * platform::kFileTimePerSecond +
                    6 * platform::kFileTimePerMs;
  const std::string text = MetricsText(numbers);
  for (const std::string_view part :
       {"# TYPE talvorn_up gauge\ntalvorn_up 1\n", "talvorn_locator_present 1\n",
        "talvorn_locators 2\n", "talvorn_devices_heard{interface=\"net\\\"0\"} 1\n",
        "talvorn_other_locators{interface=\"net\\\"0\"} 1\n",
        "talvorn_asks{interface=\"net\\\"0\"} 1\n", "talvorn_info{version=\"1.0\\\"\"} 1\n",
        "talvorn_reply_seconds 1.002003\n",
        "talvorn_devices{family=\"ipv4\"} 2\ntalvorn_devices{family=\"ipv6\"} 1\n"
        "talvorn_devices{family=\"both\"} 1\ntalvorn_devices{family=\"none\"} 0\n",
        "talvorn_items 7\n", "talvorn_udp_receive_drops 12\n",
        "talvorn_scrape_timestamp_seconds 5.006\n"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << "in\n" << text;
  }
}

TEST(Metrics, SayNothingThatIsNotKnown) {
  const std::string text = MetricsText({});
  EXPECT_NE(text.find("\ntalvorn_up 0\n"), std::string::npos);
  for (const std::string_view name : {"talvorn_info", "reply", "devices", "items", "drops", "asks"})
    EXPECT_EQ(text.find(name), std::string::npos) << name;
}

TEST(Metrics, LabelsKeepHostileTextsInTheirQuotationMarks) {
  EXPECT_EQ(LabelValue("a\\\"b"), "a\\\\\\\"b");
  EXPECT_EQ(LabelValue("1\n2\x1b[2J").find_first_of("\n\x1b"), std::string::npos);
  // Cut before it is escaped: no backslash is left to escape the quotation mark.
  EXPECT_EQ(LabelValue(std::string(500, '"')).find("\\\"\\\""), 0U);
  for (std::size_t size = 60; size < 70; ++size) {
    const std::string value = LabelValue(std::string(size, '\\'));
    EXPECT_LE(value.size(), 140U);
    EXPECT_EQ(value.substr(0, value.find_first_not_of('\\')).size() % 2, 0U);
  }
}

}  // namespace
}  // namespace talvorn
