#include "platform/foreign_text.h"

#include "platform/posix/code_page.h"
#include "platform/posix/io.h"

namespace talvorn::platform {
namespace {

constexpr const char* kVariable = "TALVORN_CODE_PAGE";

// As the variable was at the first text. Never destroyed: threads may go on until the process has
// gone.
const CodePage& Chosen() {
  static const auto& chosen = *new CodePage(Environment(kVariable, ""));
  return chosen;
}

}  // namespace

std::u16string ForeignToWide(std::string_view text) { return Chosen().ToWide(text); }

std::string CodePageObstacle() {
  if (Chosen().known()) return {};
  return std::string(kVariable)
      .append(" is \"")
      .append(Environment(kVariable, ""))
      .append("\", which is no code page to be used");
}

}  // namespace talvorn::platform
