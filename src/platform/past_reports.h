// What was reported to the system's event log before.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace talvorn::platform {

// The newest reports of these sources, at most `most`, oldest first: each in UTF-8 with its time
// and source, and perhaps several lines long. None where this account may not read them, or no
// log keeps them.
[[nodiscard]] std::vector<std::string> PastReports(std::span<const std::u16string_view> sources,
                                                   std::size_t most);

}  // namespace talvorn::platform
