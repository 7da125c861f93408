#include "platform/account.h"

#include <errno.h>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "platform/posix/account_name.h"

namespace talvorn::platform {

std::string AccountName(uid_t account) {
  std::vector<char> buffer(1024);
  constexpr std::size_t kLargest = 1 << 20;
  passwd entry{};
  passwd* found = nullptr;
  while (getpwuid_r(account, &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < kLargest) {
    buffer.resize(buffer.size() * 2);
  }
  return found != nullptr ? found->pw_name : std::to_string(account);
}

std::string AccountText() { return AccountName(geteuid()); }

std::string MachineName() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

std::string SystemText() {
  utsname names{};
  if (uname(&names) != 0) return {};
  return std::string(names.sysname)
      .append(" ")
      .append(names.release)
      .append(" ")
      .append(names.machine);
}

}  // namespace talvorn::platform
