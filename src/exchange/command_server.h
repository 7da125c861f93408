// The mailslot command server: tells programs on the same machine what the locator
// knows, and keeps the log mode for them. One thread does all of it.
#pragma once

#include <cstdint>

#include "exchange/exchange_context.h"

namespace talvorn {

// Starts the server on a context whose lists are set. False when its thread could
// not be created.
bool StartExchange(ExchangeContext& context);
void StopExchange(ExchangeContext& context);

// Thread procedure; returns 0.
std::uint32_t ThreadExchange(ExchangeContext& context);

}  // namespace talvorn
