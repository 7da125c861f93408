#include "platform/win32/everyone_access.h"

namespace talvorn::platform {

EveryoneAccess::EveryoneAccess(DWORD rights)
    : everyone_(AllocateSid(1, {0})), descriptor_(AllocateDescriptor()) {
  const ExplicitAccess entries[] = {{.accessMask = rights, .trustee = everyone_.get()},
                                    {.accessMask = kGenericAll, .trustee = nullptr}};
  if (everyone_) list_ = MakeAcl(entries);
  attributes_ = {sizeof(attributes_), descriptor_.get(), FALSE};
  made_ = list_ && descriptor_ &&
          InitializeDescriptor(*descriptor_, SECURITY_DESCRIPTOR_REVISION) &&
          SetDescriptorDacl(*descriptor_, *list_);
}

}  // namespace talvorn::platform
