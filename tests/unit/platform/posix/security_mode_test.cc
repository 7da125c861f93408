#include "platform/posix/forms/security_mode.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/security.h"

namespace talvorn::platform {
namespace {

TEST(Security, TheEntriesDecideWhoMayUseAFile) {
  const SidPointer everyone = AllocateSid(1, {0});
  const SidPointer administrators = AllocateSid(5, {32, 544});
  const ExplicitAccess use{.accessMask = kGenericRead | kGenericWrite, .trustee = everyone.get()};
  const ExplicitAccess look{.accessMask = kGenericRead, .trustee = everyone.get()};
  const ExplicitAccess rule{.accessMask = kGenericAll, .trustee = administrators.get()};
  const std::pair<std::vector<ExplicitAccess>, mode_t> cases[] = {
      {{use, rule}, 0666}, {{look}, 0644}, {{rule}, 0600}, {{}, 0600}};
  for (const auto& [entries, mode] : cases) {
    const AclPointer acl = MakeAcl(entries);
    const DescriptorPointer descriptor = AllocateDescriptor();
    ASSERT_TRUE(acl && descriptor && InitializeDescriptor(*descriptor, 1) &&
                SetDescriptorDacl(*descriptor, *acl));
    const SecurityAttributes attributes{24, descriptor.get(), true};
    EXPECT_EQ(FileModeFor(&attributes), mode);
  }
  EXPECT_EQ(FileModeFor(nullptr), 0666u);
}

}  // namespace
}  // namespace talvorn::platform
