// What is in the way is the program's business: the library tells it by the status, and writes
// nothing to its standard error. Stands in for the platform layer's.
#include "platform/obstacle.h"

namespace talvorn::platform {

void ReportObstacle(std::string_view) {}

}  // namespace talvorn::platform
