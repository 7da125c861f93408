#include "client/client_presence.h"

#include "exchange/messages/messages.h"

namespace talvorn {

// The locator may run as another user.
ClientPresence::ClientPresence()
    : mutex_(platform::NamedMutex::Create(kClientMutex, platform::ObjectAccess::kEveryone)) {}

}  // namespace talvorn
