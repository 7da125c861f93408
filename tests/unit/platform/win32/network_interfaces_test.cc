#include "platform/network_interfaces.h"

#include <gtest/gtest.h>

#include "platform/fault_injection.h"
#include "platform/win32/windows_api.h"

namespace talvorn::platform {
namespace {

TEST(NetworkInterfaces, AListThatGrowsWhileItIsAskedForIsAskedForAgain) {
  ArmFault(Fault::kAdapterQuery, 3, 0, ERROR_BUFFER_OVERFLOW);
  EXPECT_TRUE(QueryIpv6Adapters());
  ArmFault(Fault::kAdapterQuery, 4, 0, ERROR_BUFFER_OVERFLOW);
  EXPECT_FALSE(QueryIpv6Adapters());
  ArmFault(Fault::kAdapterQuery, 1, 0, ERROR_NO_DATA);
  EXPECT_FALSE(QueryIpv6Adapters()) << "no more than one try for any other reason";
  DisarmFaults();
}

}  // namespace
}  // namespace talvorn::platform
