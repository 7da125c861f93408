#include "platform/directories.h"

#include <algorithm>
#include <array>

#include "platform/win32/windows_api.h"

namespace talvorn::platform {

std::optional<std::string> TemporaryDirectory(std::size_t capacity) {
  std::array<char, MAX_PATH + 2> path{};
  const DWORD size = GetTempPathA(static_cast<DWORD>(path.size()), path.data());
  // More than there is room for is the room that it would take.
  if (size == 0 || size >= std::min(capacity, path.size())) return std::nullopt;
  return std::string(path.data(), size);
}

char PathSeparatorFor(std::string_view /*path*/) { return '\\'; }

std::string_view MeetingPlaceVariable() { return {}; }

}  // namespace talvorn::platform
