// Where programs on this machine meet: the runtime directory with its two folders,
// in which everybody may put things and remove their own. Whatever stands in them
// may have been put there by somebody hostile.
#pragma once

#include <string>

#include "platform/posix/descriptor.h"

namespace talvorn::platform {

enum class RuntimeFolder { kMailslot, kObjects };

// $TALVORN_RUNTIME_DIR, or /run/talvorn.
[[nodiscard]] std::string RuntimeDirectory();
[[nodiscard]] std::string RuntimeFolderPath(RuntimeFolder folder);

// None when the folder is not there or may not be read; `create` makes it, and the
// runtime directory, where they are missing.
[[nodiscard]] Descriptor OpenRuntimeFolder(RuntimeFolder folder, bool create);

// Whether something of this name stands in the folder of the objects: the cheapest way
// to see that there is nothing. A folder made anew is noticed within a tenth of a second.
[[nodiscard]] bool MayBeObject(const std::string& name);

// Makes the runtime directory ready for the locator. Otherwise false, and in
// `obstacle` a sentence that says what is in the way and what to do.
[[nodiscard]] bool PrepareRuntimeDirectory(std::string& obstacle);

// True when `name` in `directory` is still the file that `fd` stands for.
[[nodiscard]] bool IsStillAt(int directory, const std::string& name, int fd);

}  // namespace talvorn::platform
