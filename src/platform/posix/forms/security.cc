// Everyone may use whatever is made with a descriptor, which says no more than that: the
// file gets a mode of its own.
#include "platform/security.h"

#include "platform/fault_injection.h"

namespace talvorn::platform {

class SecurityIdentifier {};
class AccessControlList {};
class SecurityDescriptor {};

void SecurityDeleter::operator()(SecurityIdentifier* sid) const { delete sid; }
void SecurityDeleter::operator()(AccessControlList* acl) const { delete acl; }
void SecurityDeleter::operator()(SecurityDescriptor* descriptor) const { delete descriptor; }

SidPointer AllocateSid(std::uint8_t /*authority*/,
                       std::initializer_list<std::uint32_t> /*subAuthorities*/) {
  return SidPointer(FaultHits(Fault::kSidAllocate) ? nullptr : new SecurityIdentifier);
}

AclPointer MakeAcl(std::span<const ExplicitAccess> /*entries*/) {
  return AclPointer(FaultHits(Fault::kAclMake) ? nullptr : new AccessControlList);
}

DescriptorPointer AllocateDescriptor() {
  return DescriptorPointer(FaultHits(Fault::kDescriptorMake) ? nullptr : new SecurityDescriptor);
}

bool InitializeDescriptor(SecurityDescriptor& /*descriptor*/, std::uint32_t /*revision*/) {
  return true;
}

bool SetDescriptorDacl(SecurityDescriptor& /*descriptor*/, const AccessControlList& /*acl*/) {
  return true;
}

}  // namespace talvorn::platform
