#include "platform/security.h"

#include <algorithm>
#include <array>
#include <vector>

#include "platform/fault_injection.h"
#include "platform/posix/forms/security_mode.h"

namespace talvorn::platform {

class SecurityIdentifier {
 public:
  static constexpr std::size_t kMostSubAuthorities = 8;

  std::uint8_t authority = 0;
  std::uint8_t count = 0;
  std::array<std::uint32_t, kMostSubAuthorities> subAuthorities{};

  bool operator==(const SecurityIdentifier&) const = default;
};

class AccessControlList {
 public:
  struct Entry {
    std::uint32_t accessMask;
    SecurityIdentifier trustee;  // the list's own copy
  };
  std::vector<Entry> entries;
};

class SecurityDescriptor {
 public:
  std::uint32_t revision = 0;
  const AccessControlList* dacl = nullptr;
};

namespace {

constexpr std::uint32_t kDescriptorRevision = 1;

constexpr std::uint8_t kWorldAuthority = 1;

bool IsEveryone(const SecurityIdentifier& sid) {
  return sid == SecurityIdentifier{kWorldAuthority, 1, {0}};
}

}  // namespace

void SecurityDeleter::operator()(SecurityIdentifier* sid) const { delete sid; }
void SecurityDeleter::operator()(AccessControlList* acl) const { delete acl; }
void SecurityDeleter::operator()(SecurityDescriptor* descriptor) const { delete descriptor; }

SidPointer AllocateSid(std::uint8_t authority,
                       std::initializer_list<std::uint32_t> subAuthorities) {
  if (FaultHits(Fault::kSidAllocate) || subAuthorities.size() == 0 ||
      subAuthorities.size() > SecurityIdentifier::kMostSubAuthorities) {
    return nullptr;
  }
  SidPointer sid(new SecurityIdentifier);
  sid->authority = authority;
  sid->count = static_cast<std::uint8_t>(subAuthorities.size());
  std::copy(subAuthorities.begin(), subAuthorities.end(), sid->subAuthorities.begin());
  return sid;
}

AclPointer MakeAcl(std::span<const ExplicitAccess> entries) {
  if (FaultHits(Fault::kAclMake)) return nullptr;
  AclPointer acl(new AccessControlList);
  for (const ExplicitAccess& entry : entries) {
    if (entry.trustee == nullptr) return nullptr;
    acl->entries.push_back({entry.accessMask, *entry.trustee});
  }
  return acl;
}

DescriptorPointer AllocateDescriptor() {
  if (FaultHits(Fault::kDescriptorMake)) return nullptr;
  return DescriptorPointer(new SecurityDescriptor);
}

bool InitializeDescriptor(SecurityDescriptor& descriptor, std::uint32_t revision) {
  if (revision != kDescriptorRevision) return false;
  descriptor = {revision, nullptr};
  return true;
}

bool SetDescriptorDacl(SecurityDescriptor& descriptor, const AccessControlList& acl) {
  if (descriptor.revision != kDescriptorRevision) return false;
  descriptor.dacl = &acl;
  return true;
}

mode_t FileModeFor(const SecurityAttributes* attributes) {
  constexpr mode_t kOwner = 0600;
  constexpr mode_t kOthersRead = 0044;
  constexpr mode_t kOthersWrite = 0022;
  if (attributes == nullptr || attributes->securityDescriptor == nullptr ||
      attributes->securityDescriptor->dacl == nullptr) {
    return kOwner | kOthersRead | kOthersWrite;
  }
  mode_t mode = kOwner;
  for (const auto& entry : attributes->securityDescriptor->dacl->entries) {
    if (!IsEveryone(entry.trustee)) continue;
    if ((entry.accessMask & (kGenericRead | kGenericAll)) != 0) mode |= kOthersRead;
    if ((entry.accessMask & (kGenericWrite | kGenericAll)) != 0) mode |= kOthersWrite;
  }
  return mode;
}

}  // namespace talvorn::platform
