#include "client/doctor/checks.h"

namespace talvorn {

void CheckMeetingPlace(Examination&) {}

}  // namespace talvorn
