#include "service/locator_program.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "platform/event.h"
#include "platform/win32/handle.h"
#include "service/privileges.h"

namespace talvorn::service {
namespace {

using platform::Event;
using platform::KernelHandle;

std::vector<std::byte> Privileges() {
  KernelHandle token;
  EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Receive()));
  DWORD size = 0;
  (void)GetTokenInformation(token.get(), TokenPrivileges, nullptr, 0, &size);
  std::vector<std::byte> privileges(size);
  EXPECT_TRUE(GetTokenInformation(token.get(), TokenPrivileges, privileges.data(), size, &size));
  return privileges;
}

DWORD PrivilegeCount() {
  return reinterpret_cast<const TOKEN_PRIVILEGES*>(Privileges().data())->PrivilegeCount;
}

class LocatorProgramTest : public ::testing::Test {
 protected:
  const Event stop_ = Event::Create(Event::Mode::kManualReset);
  const EventSource events_;
};

TEST_F(LocatorProgramTest, WhatIsNotThereCannotBeStarted) {
  LocatorProgram program(u"C:\\not there\\talvorn-locator.exe", stop_, events_);
  EXPECT_FALSE(program.Start());
  EXPECT_TRUE(program.PauseBeforeStart(1));
  stop_.Set();
  EXPECT_FALSE(program.PauseBeforeStart(60'000));
}

TEST_F(LocatorProgramTest, AnEndIsSeenAndStartsItAnew) {
  LocatorProgram program(u"C:\\windows\\system32\\hostname.exe", stop_, events_);
  for (int life = 0; life < 2; ++life) {
    ASSERT_TRUE(program.Start());
    EXPECT_TRUE(program.WaitForEnd());
    EXPECT_TRUE(program.PauseBeforeStart(1));
  }
}

TEST(Privileges, ThoseThatAreNotNeededAreGone) {
  ASSERT_GT(PrivilegeCount(), 2u);
  EXPECT_TRUE(GiveAwayPrivileges());
  EXPECT_LE(PrivilegeCount(), 2u);
  EXPECT_GT(PrivilegeCount(), 0u);
}

}  // namespace
}  // namespace talvorn::service
