// The content of a file of static devices; see platform/device_file.h for what comes out
// of it. Any bytes make a file, if perhaps an empty one.
#pragma once

#include <string_view>
#include <vector>

#include "platform/device_file.h"

namespace talvorn::platform {

// UTF-16 and UTF-8 are known by their marks; other bytes are in the narrow code page.
[[nodiscard]] std::vector<ListedDevice> ParseDeviceText(std::string_view bytes);

}  // namespace talvorn::platform
