// Asks the locator to stop its work on one IPv4 interface and to take it up anew.
#pragma once

#include <cstdint>
#include <string_view>

namespace talvorn {

enum class ReinitialisationStatus {
  kDone,        // handled by the locator
  kPending,     // asked for, not handled yet
  kNotAsked,    // no such request, or the settings cannot be read
  kNoAddress,   // not an IPv4 address in its usual form, "192.168.1.10"
  kNotWritten,  // this account may not write the settings
};

// Leaves a request for the interface with this address in the settings, where the
// locator finds it in its next look at the network, usually within a second. Needs
// the right to write the settings. kPending when the request has been left.
[[nodiscard]] ReinitialisationStatus RequestReinitialisation(std::string_view address);

// What has become of the request.
[[nodiscard]] ReinitialisationStatus QueryReinitialisation(std::string_view address);

}  // namespace talvorn
