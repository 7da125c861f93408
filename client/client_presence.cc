#include "client/client_presence.h"

#include "exchange/messages/messages.h"

namespace talvorn {

ClientPresence::ClientPresence() { Renew(); }

void ClientPresence::Renew() {
  if (mutex_.IsInPlace()) return;
  // The locator may run as another user.
  mutex_ = platform::NamedMutex::Create(kClientMutex, platform::ObjectAccess::kEveryone);
}

}  // namespace talvorn
