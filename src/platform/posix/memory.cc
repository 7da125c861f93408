#include "platform/memory.h"

#include <malloc.h>

namespace talvorn::platform {

void GiveBackFreedMemory() { (void)malloc_trim(0); }

}  // namespace talvorn::platform
