// What the access entries of a descriptor mean for a file.
#pragma once

#include <sys/types.h>

#include "platform/security.h"

namespace talvorn::platform {

// Mode bits: the owner may always read and write, everybody else what Everyone's
// entries grant. Without a descriptor, or without a list in it, everybody may.
[[nodiscard]] mode_t FileModeFor(const SecurityAttributes* attributes);

}  // namespace talvorn::platform
