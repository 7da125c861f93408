// What an examination finds.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace talvorn {

enum class Verdict { kOk, kWarning, kFailure };

struct Finding {
  // Which check found it, "settings": also its anchor in docs/troubleshooting.md.
  std::string_view check;
  Verdict verdict = Verdict::kOk;
  std::string what;    // one sentence without a full stop, UTF-8; may hold foreign text as it came
  std::string advice;  // one thing to do, with a full stop; empty when all is well
};

using TakeFinding = std::function<void(Finding)>;

}  // namespace talvorn
