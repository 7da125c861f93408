#pragma once

#include "platform/obstacle.h"  // IWYU pragma: export
