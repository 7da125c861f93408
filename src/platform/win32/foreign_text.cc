#include "platform/foreign_text.h"

#include "platform/text_encoding.h"

namespace talvorn::platform {

std::u16string ForeignToWide(std::string_view text) { return NarrowToWide(text); }

std::string CodePageObstacle() { return {}; }

}  // namespace talvorn::platform
