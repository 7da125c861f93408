// Tells the locator that a client needs it: a locator that was started with /dynamic
// lives as long as some client does so, and a while longer.
//
//   const ClientPresence presence;  // for as long as the program needs the locator
#pragma once

#include "platform/named_object.h"

namespace talvorn {

class ClientPresence {
 public:
  // Holds the mutex "TALVORN-LOCATOR-IN-USE" until destruction. The locator looks for
  // it once a second.
  ClientPresence();

  // Holds it anew where it was lost: on Linux with the folder that it stood in. For a program
  // that lives long, about once a second.
  void Renew();

  // False when the mutex could not be made; the locator then does not know of us.
  [[nodiscard]] bool held() const { return mutex_.valid(); }

 private:
  platform::NamedMutex mutex_;
};

}  // namespace talvorn
