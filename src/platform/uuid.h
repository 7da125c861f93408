// A new UUID in its text form: 36 characters, lower-case hexadecimal digits in
// groups of 8, 4, 4, 4 and 12. Empty when the system cannot make one.
#pragma once

#include <string>

namespace talvorn::platform {

[[nodiscard]] std::string NewUuidText();

}  // namespace talvorn::platform
