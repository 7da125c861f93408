// The names in the folder of the named objects, kept up to date by inotify: a look for
// a change event that no client has made, which is most of them, costs one read.
#pragma once

#include <string>

namespace talvorn::platform {

// Whether something of this name stands in the folder of the objects. A folder made
// anew is noticed within a tenth of a second.
[[nodiscard]] bool MayBeObject(const std::string& name);

}  // namespace talvorn::platform
