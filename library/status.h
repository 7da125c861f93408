// How calls end.
#pragma once

#include <exception>

#include "client/locator_client.h"
#include "talvorn/talvorn.h"

namespace talvorn {

[[nodiscard]] talvorn_status StatusOf(ClientStatus status);

// Runs one call. The system's refusals, which are exceptions inside, end here.
template <class Call>
[[nodiscard]] talvorn_status Guarded(Call call) noexcept {
  try {
    return call();
  } catch (const std::exception&) {
    return TALVORN_NO_RESOURCES;
  }
}

}  // namespace talvorn
