// Where programs on this machine meet: the runtime directory, in which only the locator makes its
// mailslot, and two folders for everybody. A hostile process may have made what stands in those.
#pragma once

#include <string>

#include "platform/posix/descriptor.h"

namespace talvorn::platform {

// kLocator is the runtime directory itself.
enum class RuntimeFolder { kLocator, kMailslot, kObjects };

// $TALVORN_RUNTIME_DIR, or /run/talvorn. Valid until the environment changes.
[[nodiscard]] const char* RuntimeDirectory();
[[nodiscard]] std::string RuntimeFolderPath(RuntimeFolder folder);

// None when the folder is not there or may not be read; `create` makes it, and the
// runtime directory, where they are missing.
[[nodiscard]] Descriptor OpenRuntimeFolder(RuntimeFolder folder, bool create);

// Makes the runtime directory ready for the locator. Otherwise false, and in
// `obstacle` a sentence that says what is in the way and what to do.
[[nodiscard]] bool PrepareRuntimeDirectory(std::string& obstacle);

// Removes the sockets that killed programs have left, as far as this account may.
// Defined with the mailslots.
void RemoveStaleMailslots();

// True when `name` in `directory` is still the file that `fd` stands for.
[[nodiscard]] bool IsStillAt(int directory, const std::string& name, int fd);

}  // namespace talvorn::platform
