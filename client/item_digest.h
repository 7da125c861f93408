// What identifies an item, as a text.
#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "client/replies.h"

namespace talvorn {

// SHA-1 of what identifies the item, in hexadecimal digits; empty when the system
// cannot make one.
[[nodiscard]] std::string ItemDigest(const DeviceItem& item);

[[nodiscard]] std::string HexText(std::span<const std::byte> bytes);

}  // namespace talvorn
