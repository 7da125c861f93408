#include "client/doctor/checks.h"

namespace talvorn {

void CheckStaticDevices(Examination&) {}

}  // namespace talvorn
