// Names of accounts.
#pragma once

#include <sys/types.h>

#include <string>

namespace talvorn::platform {

// The account's name, or its number when it has none.
[[nodiscard]] std::string AccountName(uid_t account);

}  // namespace talvorn::platform
