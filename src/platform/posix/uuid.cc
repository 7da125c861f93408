#include "platform/uuid.h"

#include <uuid/uuid.h>

namespace talvorn::platform {

std::string NewUuidText() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  std::string text(UUID_STR_LEN, '\0');
  uuid_unparse_lower(uuid, text.data());
  text.pop_back();
  return text;
}

}  // namespace talvorn::platform
