#include "platform/uuid.h"

#include "platform/win32/windows_api.h"

// Behind the header that sets the switches.
#include <rpc.h>

namespace talvorn::platform {

std::string NewUuidText() {
  UUID uuid{};
  // Without a network card the UUID is unique on this machine only.
  const RPC_STATUS made = UuidCreate(&uuid);
  if (made != RPC_S_OK && made != RPC_S_UUID_LOCAL_ONLY) return {};
  RPC_CSTR native = nullptr;
  if (UuidToStringA(&uuid, &native) != RPC_S_OK) return {};
  std::string text(reinterpret_cast<const char*>(native));
  RpcStringFreeA(&native);
  return text;
}

}  // namespace talvorn::platform
