// The privileges of this process.
#pragma once

namespace talvorn::service {

// Gives away, for good, all that neither this process nor the locator needs; what it starts
// has no more. False when some are left.
bool GiveAwayPrivileges();

}  // namespace talvorn::service
