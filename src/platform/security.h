// Who may use an object: identifiers, access entries, a descriptor. On Linux a descriptor means
// that everybody may read and write.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>

namespace talvorn::platform {

class SecurityIdentifier;
class AccessControlList;
class SecurityDescriptor;

struct SecurityDeleter {
  void operator()(SecurityIdentifier* sid) const;
  void operator()(AccessControlList* acl) const;
  void operator()(SecurityDescriptor* descriptor) const;
};
using SidPointer = std::unique_ptr<SecurityIdentifier, SecurityDeleter>;
using AclPointer = std::unique_ptr<AccessControlList, SecurityDeleter>;
using DescriptorPointer = std::unique_ptr<SecurityDescriptor, SecurityDeleter>;

inline constexpr std::uint32_t kGenericRead = 0x80000000;
inline constexpr std::uint32_t kGenericWrite = 0x40000000;
inline constexpr std::uint32_t kGenericAll = 0x10000000;

enum class AccessMode : std::uint32_t { kSetAccess = 2 };
enum class TrusteeType : std::uint32_t { kWellKnownGroup = 5 };

struct ExplicitAccess {
  std::uint32_t accessMask = 0;
  AccessMode mode = AccessMode::kSetAccess;
  std::uint32_t inheritance = 0;
  TrusteeType trusteeType = TrusteeType::kWellKnownGroup;
  const SecurityIdentifier* trustee = nullptr;  // null: the account of the process
};

struct SecurityAttributes {
  std::uint32_t length = 0;
  const SecurityDescriptor* securityDescriptor = nullptr;
  bool inheritHandle = false;
};

// Identifier S-1-<authority>-<subAuthorities...>; null on failure.
[[nodiscard]] SidPointer AllocateSid(std::uint8_t authority,
                                     std::initializer_list<std::uint32_t> subAuthorities);
// A list made of `entries` and nothing else; null on failure.
[[nodiscard]] AclPointer MakeAcl(std::span<const ExplicitAccess> entries);
// A zeroed descriptor of the smallest size; null on failure.
[[nodiscard]] DescriptorPointer AllocateDescriptor();
[[nodiscard]] bool InitializeDescriptor(SecurityDescriptor& descriptor, std::uint32_t revision);
// `acl` must live as long as the descriptor.
[[nodiscard]] bool SetDescriptorDacl(SecurityDescriptor& descriptor, const AccessControlList& acl);

}  // namespace talvorn::platform
