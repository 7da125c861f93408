#include "platform/device_file.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>

#include "platform/posix/forms/device_text.h"
#include "platform/posix/forms/regular_file.h"
#include "platform/posix/wide_text.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {
namespace {

std::u16string Decode(std::string_view bytes) {
  if (bytes.starts_with("\xFF\xFE")) return DecodeUtf16(bytes.substr(2), ByteOrder::kLittleEndian);
  if (bytes.starts_with("\xFE\xFF")) return DecodeUtf16(bytes.substr(2), ByteOrder::kBigEndian);
  if (bytes.starts_with("\xEF\xBB\xBF")) return Utf8ToWide(bytes.substr(3));
  return NarrowToWide(bytes);
}

std::u16string_view WithoutQuotes(std::u16string_view value) {
  const bool quoted = value.size() >= 2 && value.front() == value.back() &&
                      (value.front() == u'"' || value.front() == u'\'');
  return quoted ? value.substr(1, value.size() - 2) : value;
}

// A list of names ends at its first empty one, so that a name cannot contain NUL.
std::u16string_view UpToNul(std::u16string_view text) { return text.substr(0, text.find(u'\0')); }

}  // namespace

std::vector<ListedDevice> ParseDeviceText(std::string_view bytes) {
  const std::u16string text = Decode(bytes);
  std::vector<ListedDevice> devices;
  // By the name in capitals, of the first section that has it.
  std::map<std::u16string, std::optional<std::u16string>> addresses;
  std::optional<std::u16string>* address = nullptr;  // of the section, when it counts
  for (std::u16string_view rest = text; !rest.empty();) {
    const std::size_t end = std::min(rest.find_first_of(u"\r\n"), rest.size());
    const std::u16string_view line = TrimBlanks(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.empty() || line.front() == u';') continue;
    const std::size_t equals = line.find(u'=');
    if (line.front() == u'[') {
      // An unclosed name begins a section that nobody can ask for.
      const std::size_t close = line.find(u']');
      const std::u16string_view name =
          close == line.npos ? std::u16string_view() : TrimBlanks(line.substr(1, close - 1));
      if (!UpToNul(name).empty()) devices.push_back({std::u16string(UpToNul(name)), {}});
      const auto [section, first] = addresses.try_emplace(FoldCase(name));
      address = first ? &section->second : nullptr;
    } else if (address != nullptr && !*address && equals != line.npos &&
               EqualWithoutCase(TrimBlanks(line.substr(0, equals)), kAddressKey)) {
      *address = WithoutQuotes(TrimBlanks(line.substr(equals + 1)));
    }
  }
  for (ListedDevice& device : devices) {
    const auto section = addresses.find(FoldCase(device.name));
    if (section != addresses.end() && section->second)
      device.address = UpToNul(section->second->substr(0, kAddressCapacity - 1));
  }
  return devices;
}

std::vector<ListedDevice> ReadDeviceFile(std::u16string_view path) {
  const auto content = ReadTextFile(WideToUtf8(path));
  return content ? ParseDeviceText(content->bytes) : std::vector<ListedDevice>();
}

}  // namespace talvorn::platform
