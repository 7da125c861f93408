// What the commands share: asking the locator, saying why it does not answer, and
// leaving when the user wants to.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "client/locator_client.h"
#include "client/tool/tool_options.h"

namespace talvorn {

inline constexpr std::uint32_t kDefaultTimeoutMs = 3'000;

[[nodiscard]] ClientOptions ClientOptionsOf(const ToolOptions& options);

// What is wrong, and a sentence that says what to do about it, perhaps empty.
struct Trouble {
  std::string what;
  std::string advice;
};
[[nodiscard]] Trouble TroubleOf(ClientStatus status);

// A question, or a part of one, about the variable that says where clients meet the
// locator; empty where there is none.
[[nodiscard]] std::string MeetingPlaceQuestion(std::string_view before, std::string_view after);

// "talvorn: ..." on standard error.
void Complain(std::string_view sentence);
void Complain(const Trouble& trouble);

// The exit status for a request that ended so; complains about what is no success.
[[nodiscard]] int Conclude(ClientStatus status);

// Replaces a file as a whole; complains when that fails. Returns the exit status.
[[nodiscard]] int WriteFile(const std::string& file, const std::string& text);

[[nodiscard]] bool Interrupted();
// True when the user has asked for the end within this time.
[[nodiscard]] bool InterruptedWithin(std::uint32_t milliseconds);

}  // namespace talvorn
