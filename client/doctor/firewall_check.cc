#include "client/doctor/checks.h"

namespace talvorn {

void CheckFirewall(Examination&) {}

}  // namespace talvorn
