#include "client/doctor/checks.h"

namespace talvorn {

void CheckSettings(Examination&) {}

}  // namespace talvorn
