#include "exchange/object_security.h"

namespace talvorn {
namespace {

constexpr std::uint8_t kWorldAuthority = 1;
constexpr std::uint8_t kNtAuthority = 5;
constexpr std::uint32_t kDescriptorRevision = 1;
constexpr std::uint32_t kAttributesLength = 24;

}  // namespace

bool CreateSecurityAttributes(ExchangeContext& context, platform::SecurityAttributes& attributes) {
  context.everyoneSid = platform::AllocateSid(kWorldAuthority, {0});
  if (!context.everyoneSid) return false;
  context.administratorsSid = platform::AllocateSid(kNtAuthority, {32, 544});
  if (!context.administratorsSid) return false;

  const platform::ExplicitAccess entries[] = {
      {.accessMask = platform::kGenericRead | platform::kGenericWrite,
       .trustee = context.everyoneSid.get()},
      {.accessMask = platform::kGenericAll, .trustee = context.administratorsSid.get()},
  };
  context.acl = platform::MakeAcl(entries);
  if (!context.acl) return false;

  context.securityDescriptor = platform::AllocateDescriptor();
  if (!context.securityDescriptor) return false;
  if (!platform::InitializeDescriptor(*context.securityDescriptor, kDescriptorRevision))
    return false;
  if (!platform::SetDescriptorDacl(*context.securityDescriptor, *context.acl)) return false;

  attributes = {.length = kAttributesLength,
                .securityDescriptor = context.securityDescriptor.get(),
                .inheritHandle = true};
  return true;
}

void FreeSecurityAttributes(ExchangeContext& context) {
  context.everyoneSid.reset();
  context.administratorsSid.reset();
  context.acl.reset();
  context.securityDescriptor.reset();
}

}  // namespace talvorn
