#include "platform/memory.h"

#include <malloc.h>

namespace talvorn::platform {

void GiveBackFreedMemory() { (void)_heapmin(); }

}  // namespace talvorn::platform
