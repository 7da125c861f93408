// Texts that devices send. Nothing tells their code page: on Windows it is the system's, on Linux
// Windows-1252 or what TALVORN_CODE_PAGE names: a page that iconv knows, by its name or its
// Windows number ("1251", "CP932"), and with "utf-8," before it the characters of a text that is
// well-formed UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace talvorn::platform {

// What the page lacks becomes U+FFFD.
[[nodiscard]] std::u16string ForeignToWide(std::string_view text);

// What is wrong with TALVORN_CODE_PAGE, in one sentence without a full stop; empty when nothing
// is. Texts are in Windows-1252 meanwhile.
[[nodiscard]] std::string CodePageObstacle();

}  // namespace talvorn::platform
