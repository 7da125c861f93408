// Files that others read while they are written anew.
#pragma once

#include <string_view>
#include <system_error>

namespace talvorn::platform {

// Gives the file at `path` (UTF-8) this content, readable by everyone. Whoever reads it gets all
// of the old one or all of the new one: the content goes into a file beside it, which takes its
// name once it is whole. On failure, whose reason is returned, the old file stays as it was. What
// is there and is no file, such as a folder or a device, is never replaced. A process that is
// killed in between may leave the file beside it, named `path`, a dot, a number and ".tmp".
[[nodiscard]] std::error_code ReplaceFileContent(std::string_view path, std::string_view content);

}  // namespace talvorn::platform
