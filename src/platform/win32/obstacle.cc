#include "platform/obstacle.h"

namespace talvorn::platform {

void ReportObstacle(std::string_view) {}

}  // namespace talvorn::platform
