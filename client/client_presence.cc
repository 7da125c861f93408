#include "client/client_presence.h"

#include "messages/messages.h"

namespace talvorn {

ClientPresence::ClientPresence() : mutex_(platform::NamedMutex::Create(kClientMutex)) {}

}  // namespace talvorn
