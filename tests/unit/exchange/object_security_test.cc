#include "exchange/object_security.h"

#include <gtest/gtest.h>

#include "platform/fault_injection.h"

namespace talvorn {
namespace {

TEST(ObjectSecurity, EveryStepMayFailAndIsFreedAfterwards) {
  using platform::Fault;
  const std::pair<Fault, int> steps[] = {{Fault::kSidAllocate, 0},
                                         {Fault::kSidAllocate, 1},
                                         {Fault::kAclMake, 0},
                                         {Fault::kDescriptorMake, 0}};
  for (const auto& [fault, skip] : steps) {
    ExchangeContext context;
    platform::SecurityAttributes attributes;
    platform::ArmFault(fault, 1, skip);
    EXPECT_FALSE(CreateSecurityAttributes(context, attributes));
    EXPECT_EQ(attributes.securityDescriptor, nullptr);
    EXPECT_EQ(context.everyoneSid != nullptr, fault != Fault::kSidAllocate || skip == 1);
    FreeSecurityAttributes(context);
    EXPECT_EQ(context.everyoneSid, nullptr);
    EXPECT_TRUE(CreateSecurityAttributes(context, attributes));
    EXPECT_EQ(attributes.length, 24u);
    EXPECT_TRUE(attributes.inheritHandle);
    FreeSecurityAttributes(context);
    FreeSecurityAttributes(context);
    EXPECT_EQ(context.securityDescriptor, nullptr);
  }
  platform::DisarmFaults();
}

}  // namespace
}  // namespace talvorn
