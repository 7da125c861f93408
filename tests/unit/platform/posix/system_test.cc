// Small services: identifiers, directories, the security of files.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <array>
#include <string_view>
#include <vector>

#include "platform/directories.h"
#include "platform/fault_injection.h"
#include "platform/posix/security_mode.h"
#include "platform/security.h"
#include "platform/uuid.h"

namespace talvorn::platform {
namespace {

TEST(Uuid, IsANewRandomOneEachTime) {
  const std::string text = NewUuidText();
  // x: any digit; 4 and y: the version and the variant of a random one.
  constexpr std::string_view kForm = "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx";
  ASSERT_EQ(text.size(), kForm.size());
  for (std::size_t i = 0; i < kForm.size(); ++i) {
    const std::string_view allowed = kForm[i] == 'x'   ? "0123456789abcdef"
                                     : kForm[i] == 'y' ? "89ab"
                                                       : kForm.substr(i, 1);
    EXPECT_NE(allowed.find(text[i]), std::string_view::npos) << text;
  }
  EXPECT_NE(text, NewUuidText());
}

TEST(Directories, TheTemporaryDirectoryEndsInASlashAndFits) {
  const std::pair<const char*, const char*> cases[] = {
      {"/var/tmp", "/var/tmp/"}, {"/var/tmp/", "/var/tmp/"}, {"relative", "/tmp/"}, {"", "/tmp/"}};
  for (const auto& [configured, expected] : cases) {
    setenv("TMPDIR", configured, 1);
    EXPECT_EQ(TemporaryDirectory(1024), expected);
  }
  unsetenv("TMPDIR");
  EXPECT_EQ(TemporaryDirectory(6), "/tmp/");
  EXPECT_EQ(TemporaryDirectory(5), std::nullopt);
  EXPECT_EQ(PathSeparatorFor("/var/log"), '/');
  EXPECT_EQ(PathSeparatorFor("D:\\Logs"), '\\');
  EXPECT_EQ(PathSeparatorFor(""), '\\');
}

TEST(Security, TheEntriesDecideWhoMayUseAFile) {
  const SidPointer everyone = AllocateSid(1, {0});
  const SidPointer administrators = AllocateSid(5, {32, 544});
  ASSERT_TRUE(everyone && administrators);
  const std::uint32_t kBoth = kGenericRead | kGenericWrite;
  const std::pair<std::vector<ExplicitAccess>, mode_t> cases[] = {
      {{{.accessMask = kBoth, .trustee = everyone.get()},
        {.accessMask = kGenericAll, .trustee = administrators.get()}},
       0666},
      {{{.accessMask = kGenericRead, .trustee = everyone.get()}}, 0644},
      {{{.accessMask = kGenericAll, .trustee = administrators.get()}}, 0600},
      {{}, 0600},
  };
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

TEST(Security, StepsThatCannotWorkFail) {
  EXPECT_FALSE(AllocateSid(1, {}));
  EXPECT_FALSE(AllocateSid(1, {1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_FALSE(MakeAcl(std::array{ExplicitAccess{.accessMask = kGenericAll}}));
  const DescriptorPointer descriptor = AllocateDescriptor();
  const AclPointer acl = MakeAcl({});
  ASSERT_TRUE(descriptor && acl);
  EXPECT_FALSE(SetDescriptorDacl(*descriptor, *acl)) << "not initialised";
  EXPECT_FALSE(InitializeDescriptor(*descriptor, 2));

  ArmFault(Fault::kSidAllocate, 1, 1);
  ArmFault(Fault::kAclMake, 1);
  ArmFault(Fault::kDescriptorMake, 1);
  EXPECT_TRUE(AllocateSid(1, {0}));
  EXPECT_FALSE(AllocateSid(5, {32, 544}));
  EXPECT_FALSE(MakeAcl({}));
  EXPECT_FALSE(AllocateDescriptor());
  DisarmFaults();
}

}  // namespace
}  // namespace talvorn::platform
