#include "platform/posix/forms/udp_table.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string>

#include "platform/posix/descriptor.h"
#include "platform/posix/io.h"
#include "platform/udp_drops.h"

namespace talvorn::platform {
namespace {

constexpr std::string_view kBlank = " \t";

// The next word of the line; empty at its end.
std::string_view TakeWord(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(kBlank), line.size()));
  const std::string_view word = line.substr(0, line.find_first_of(kBlank));
  line.remove_prefix(word.size());
  return word;
}

template <typename T>
std::optional<T> NumberOf(std::string_view text, int base) {
  T number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::uint64_t DropsInLine(std::string_view line, std::uint16_t port) {
  (void)TakeWord(line);  // the slot
  const std::string_view local = TakeWord(line);
  const std::size_t colon = local.rfind(':');
  if (colon == std::string_view::npos) return 0;
  if (NumberOf<std::uint16_t>(local.substr(colon + 1), 16) != port) return 0;
  std::string_view last;
  for (auto word = TakeWord(line); !word.empty(); word = TakeWord(line)) last = word;
  return NumberOf<std::uint64_t>(last, 10).value_or(0);
}

std::optional<std::string> ReadWhole(const char* path) {
  const Descriptor file(Retried([&] { return open(path, O_RDONLY | O_CLOEXEC); }));
  if (!file.valid()) return std::nullopt;
  std::string text;
  std::array<char, 16'384> part{};
  for (;;) {
    const ssize_t size = Retried([&] { return read(file.get(), part.data(), part.size()); });
    if (size < 0) return std::nullopt;
    if (size == 0) return text;
    text.append(part.data(), static_cast<std::size_t>(size));
  }
}

}  // namespace

std::uint64_t DropsInUdpTable(std::string_view table, std::uint16_t port) {
  std::uint64_t drops = 0;
  while (!table.empty()) {
    const std::string_view line = table.substr(0, table.find('\n'));
    drops += DropsInLine(line, port);
    table.remove_prefix(std::min(line.size() + 1, table.size()));
  }
  return drops;
}

std::optional<std::uint64_t> UdpReceiveDrops(std::uint16_t port) {
  // Not /proc/net: a service may see nothing of /proc but itself.
  const auto ipv4 = ReadWhole("/proc/self/net/udp");
  if (!ipv4) return std::nullopt;
  const auto ipv6 = ReadWhole("/proc/self/net/udp6");  // not there without IPv6
  return DropsInUdpTable(*ipv4, port) + (ipv6 ? DropsInUdpTable(*ipv6, port) : 0);
}

}  // namespace talvorn::platform
