#include "client/doctor/checks.h"

namespace talvorn {

void CheckSubject(Examination&) {}

}  // namespace talvorn
