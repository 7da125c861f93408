#include "client/tool/metrics.h"

#include "command_line/concat.h"
#include "command_line/terminal_text.h"
#include "version.h"

namespace talvorn {
namespace {

constexpr std::size_t kLongestLabel = 64;

class MetricsWriter {
 public:
  // Begins a metric; its samples follow. All of them can rise and fall.
  MetricsWriter& Gauge(std::string_view name, std::string_view help) {
    name_ = name;
    text_.append(Concat({"# HELP ", name, " ", help, "\n# TYPE ", name, " gauge\n"}));
    return *this;
  }
  MetricsWriter& Sample(std::string_view number) {
    text_.append(Concat({name_, " ", number, "\n"}));
    return *this;
  }
  MetricsWriter& Sample(std::uint64_t number) { return Sample(std::to_string(number)); }
  MetricsWriter& Sample(std::string_view label, std::string_view value, std::uint64_t number) {
    text_.append(Concat(
        {name_, "{", label, "=\"", LabelValue(value), "\"} ", std::to_string(number), "\n"}));
    return *this;
  }

  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  std::string_view name_;
  std::string text_;
};

// A number of seconds, given in parts of which `parts` make one, a power of ten.
std::string SecondsText(std::uint64_t time, std::uint64_t parts) {
  const std::string fraction = std::to_string(parts + time % parts).substr(1);
  return Concat({std::to_string(time / parts), ".", fraction});
}

std::string UnixSeconds(platform::FileTime time) {
  constexpr auto kEpoch = platform::kSecondsFrom1601To1970 * platform::kFileTimePerSecond;
  return SecondsText((time > kEpoch ? time - kEpoch : 0) / platform::kFileTimePerMs, 1'000);
}

void WriteLocator(MetricsWriter& metrics, const LocatorNumbers& locator) {
  metrics.Gauge("talvorn_info", "The version that the locator tells its clients.")
      .Sample("version", locator.version, 1);
  metrics.Gauge("talvorn_reply_seconds", "How long the locator took to answer a request.")
      .Sample(SecondsText(locator.replyMicroseconds, 1'000'000));
  metrics
      .Gauge("talvorn_devices",
             "Devices that the locator knows, by the addresses in their records.")
      .Sample("family", "ipv4", locator.devices.ipv4)
      .Sample("family", "ipv6", locator.devices.ipv6)
      .Sample("family", "both", locator.devices.both)
      .Sample("family", "none", locator.devices.none);
  metrics.Gauge("talvorn_items", "Items that devices have attached.").Sample(locator.items);
}

void WriteHeard(MetricsWriter& metrics, const std::map<std::string, HeardOnInterface>& interfaces) {
  constexpr std::string_view kLabel = "interface";
  metrics.Gauge("talvorn_devices_heard", "Devices that answered while this listened.");
  for (const auto& [name, heard] : interfaces) metrics.Sample(kLabel, name, heard.devices.size());
  metrics.Gauge("talvorn_other_locators",
                "Other locators that asked, and kept this machine's silent, while this listened.");
  for (const auto& [name, heard] : interfaces) metrics.Sample(kLabel, name, heard.askers.size());
  if (!interfaces.begin()->second.asked) return;  // nowhere to be seen
  metrics.Gauge("talvorn_asks", "Whether this machine's locator asked while this listened.");
  for (const auto& [name, heard] : interfaces) metrics.Sample(kLabel, name, *heard.asked ? 1 : 0);
}

}  // namespace

DeviceCounts CountDevices(std::span<const DeviceRecord> devices) {
  DeviceCounts counts;
  for (const DeviceRecord& device : devices) {
    const bool ipv4 = !device.deviceIpv4.empty();
    const bool ipv6 = !device.deviceIpv6.empty();
    ++(ipv4 && ipv6 ? counts.both : ipv4 ? counts.ipv4 : ipv6 ? counts.ipv6 : counts.none);
  }
  return counts;
}

std::string MetricsText(const FleetNumbers& numbers) {
  MetricsWriter metrics;
  metrics.Gauge("talvorn_up", "Whether the locator on this machine answers its clients.")
      .Sample(numbers.locator ? 1 : 0);
  metrics
      .Gauge("talvorn_locator_present",
             "Whether a locator runs on this machine, even one that serves nobody.")
      .Sample(numbers.locatorPresent ? 1 : 0);
  metrics
      .Gauge("talvorn_locators",
             "Locators that this account sees on this machine, of which only one serves.")
      .Sample(numbers.locators);
  if (numbers.locator) WriteLocator(metrics, *numbers.locator);
  if (numbers.receiveDrops) {
    metrics
        .Gauge("talvorn_udp_receive_drops",
               "Datagrams dropped for want of room by the sockets open on the discovery port.")
        .Sample(*numbers.receiveDrops);
  }
  if (!numbers.heard.empty()) WriteHeard(metrics, numbers.heard);
  metrics.Gauge("talvorn_tool_info", "The version of the program that wrote this.")
      .Sample("version", kVersion, 1);
  metrics.Gauge("talvorn_scrape_timestamp_seconds", "When this was written, since 1970, UTC.")
      .Sample(UnixSeconds(numbers.takenAt));
  return metrics.text();
}

std::string LabelValue(std::string_view utf8) {
  std::string value;
  for (const char c : CutToWidth(EscapeForTerminal(utf8), kLongestLabel)) {
    if (c == '\\' || c == '"') value.push_back('\\');
    value.push_back(c);
  }
  return value;
}

}  // namespace talvorn
