// Security that opens a mailslot to every account on the machine: everyone may read
// and write, the local administrators may do anything.
#pragma once

#include "exchange/exchange_context.h"
#include "platform/security.h"

namespace talvorn {

// Fills the working fields of the context and `attributes`, which refer to them.
// False when a step fails; FreeSecurityAttributes then frees what was built.
bool CreateSecurityAttributes(ExchangeContext& context, platform::SecurityAttributes& attributes);

// May be called at any time, also twice.
void FreeSecurityAttributes(ExchangeContext& context);

}  // namespace talvorn
