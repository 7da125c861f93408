// Directories of the user that runs the process.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace talvorn::platform {

// With its trailing separator, in the narrow code page; none when the system
// cannot tell or it would take `capacity` bytes or more.
[[nodiscard]] std::optional<std::string> TemporaryDirectory(std::size_t capacity);

// The separator that completes `path`: a backslash; on Linux a slash for a path
// that begins with one.
[[nodiscard]] char PathSeparatorFor(std::string_view path);

// The environment variable that says where clients meet the locator; empty on Windows,
// where they always do.
[[nodiscard]] std::string_view MeetingPlaceVariable();

}  // namespace talvorn::platform
