#include "platform/win32/event_text.h"

#include <gtest/gtest.h>

namespace talvorn::platform {
namespace {

TEST(EventText, HasNothingThatTheViewerReplaces) {
  EXPECT_EQ(EventText(u"fe80::1%12 at 100%"), u"fe80::1% 12 at 100%");
  EXPECT_EQ(EventText(u"%%4 %%% %s"), u"% % 4 % % % %s");
}

}  // namespace
}  // namespace talvorn::platform
