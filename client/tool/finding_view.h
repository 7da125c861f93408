// Findings of the doctor as the tool shows them.
#pragma once

#include <string>

#include "client/doctor/finding.h"
#include "client/tool/json_writer.h"

namespace talvorn {

// One line, safe for a terminal; styles are for one.
[[nodiscard]] std::string FindingLine(const Finding& finding, bool styles);

void WriteFinding(JsonWriter& json, const Finding& finding);

}  // namespace talvorn
