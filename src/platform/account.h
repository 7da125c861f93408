// Accounts, the machine and its system by their names, for people; UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace talvorn::platform {

// The account of this process; on Windows with its session: "OFFICE\ann, session 1".
[[nodiscard]] std::string AccountText();

// The account that owns the mailslot; empty when there is none, or its owner cannot be known.
[[nodiscard]] std::string MailslotOwnerText(std::u16string_view name);

// The machine's name; empty when it has none.
[[nodiscard]] std::string MachineName();

// "Linux 6.1.0 x86_64".
[[nodiscard]] std::string SystemText();

}  // namespace talvorn::platform
