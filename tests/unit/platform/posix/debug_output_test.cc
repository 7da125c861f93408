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

// Reads what goes to standard error while it lives, through a pair of sockets that
// keeps writes apart.
class Reader {
 public:
  Reader() : saved_(dup(STDERR_FILENO)) {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0);
    end_ = Descriptor(ends[0]);
    fcntl(end_.get(), F_SETFL, O_NONBLOCK);
    dup2(Descriptor(ends[1]).get(), STDERR_FILENO);
  }
  ~Reader() { dup2(saved_.get(), STDERR_FILENO); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  [[nodiscard]] std::string Read() const {
    std::array<char, 200> text{};
    const ssize_t size = read(end_.get(), text.data(), text.size());
    return {text.data(), size < 0 ? 0 : static_cast<std::size_t>(size)};
  }
  void Close() { end_.Close(); }

 private:
  Descriptor saved_;
  Descriptor end_;
};

TEST(DebugOutput, IsOneWriteOfUtf8PerStringAndSurvivesAReaderThatIsGone) {
  Reader reader;
  DebugOutputW(u"wide \u00FC\nsecond line\n");
  DebugOutputW(u"");
  DebugOutputA("narrow \xFC \x80\n");
  DebugOutputA("path \xC3\xBC\n");
  EXPECT_EQ(reader.Read(), "wide \xC3\xBC\nsecond line\n");
  EXPECT_EQ(reader.Read(), "narrow \xC3\xBC \xE2\x82\xAC\n");
  EXPECT_EQ(reader.Read(), "path \xC3\xBC\n");
  // The descriptor that others share is left as it was.
  EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
  reader.Close();
  DebugOutputA("nobody reads this\n");
}

}  // namespace
}  // namespace talvorn::platform
