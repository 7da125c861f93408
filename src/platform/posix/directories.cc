#include "platform/directories.h"

#include <stdlib.h>

namespace talvorn::platform {

std::optional<std::string> TemporaryDirectory(std::size_t capacity) {
  const char* const configured = getenv("TMPDIR");
  std::string directory = configured != nullptr && configured[0] == '/' ? configured : "/tmp";
  if (directory.back() != '/') directory.push_back('/');
  if (directory.size() >= capacity) return std::nullopt;
  return directory;
}

char PathSeparatorFor(std::string_view path) { return path.starts_with('/') ? '/' : '\\'; }

std::string_view MeetingPlaceVariable() { return "TALVORN_RUNTIME_DIR"; }

}  // namespace talvorn::platform
