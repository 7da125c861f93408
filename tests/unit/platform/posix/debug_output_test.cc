#include "platform/debug_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>

#include "platform/posix/descriptor.h"

namespace talvorn::platform {
namespace {

TEST(DebugOutput, IsOneWriteOfUtf8PerStringAndSurvivesAReaderThatIsGone) {
  // A pair of sockets that keeps writes apart.
  std::array<int, 2> ends{-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0);
  Descriptor reader(ends[0]);
  const Descriptor writer(ends[1]);
  const Descriptor saved(dup(STDERR_FILENO));
  dup2(writer.get(), STDERR_FILENO);
  DebugOutputW(u"wide \u00FC\nsecond line\n");
  DebugOutputW(u"");
  DebugOutputA("narrow \xFC \x80\n");
  DebugOutputA("path \xC3\xBC\n");
  for (const std::string expected :
       {"wide \xC3\xBC\nsecond line\n", "narrow \xC3\xBC \xE2\x82\xAC\n", "path \xC3\xBC\n"}) {
    std::array<char, 200> text{};
    EXPECT_EQ(recv(reader.get(), text.data(), text.size(), MSG_DONTWAIT), std::ssize(expected));
    EXPECT_EQ(text.data(), expected);
  }
  // The descriptor that others share is left as it was.
  EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
  reader.Close();
  DebugOutputA("nobody reads this\n");
  dup2(saved.get(), STDERR_FILENO);
}

}  // namespace
}  // namespace talvorn::platform
