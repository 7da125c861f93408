// What the commands share: asking the locator, saying why it does not answer, and
// leaving when the user wants to.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "client/locator_client.h"
#include "tool/tool_options.h"

namespace talvorn {

inline constexpr std::uint32_t kDefaultTimeoutMs = 3'000;

[[nodiscard]] ClientOptions ClientOptionsOf(const ToolOptions& options);

// One or two lines that say what to do about `status`, each a sentence.
struct Trouble {
  std::string what;
  std::string advice;
};
[[nodiscard]] Trouble TroubleOf(ClientStatus status);

// "talvorn: ..." on standard error.
void Complain(std::string_view sentence);
void Complain(const Trouble& trouble);

// The exit status for a request that ended so; complains about what is no success.
[[nodiscard]] int Conclude(ClientStatus status);

[[nodiscard]] bool Interrupted();
// True when the user has asked for the end within this time.
[[nodiscard]] bool InterruptedWithin(std::uint32_t milliseconds);

}  // namespace talvorn
