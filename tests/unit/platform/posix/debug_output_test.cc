#include "platform/debug_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>

#include "platform/posix/descriptor.h"

namespace talvorn::platform {
namespace {

// Standard error goes elsewhere while it lives.
class Redirection {
 public:
  explicit Redirection(int target) : saved_(dup(STDERR_FILENO)) { dup2(target, STDERR_FILENO); }
  ~Redirection() { dup2(saved_.get(), STDERR_FILENO); }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

 private:
  Descriptor saved_;
};

struct Ends {
  Descriptor reader;
  Descriptor writer;
};

Ends Pipe() {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe(ends.data()), 0);
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Ends SocketPair(int type) {
  std::array<int, 2> ends{};
  EXPECT_EQ(socketpair(AF_UNIX, type, 0, ends.data()), 0);
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::string ReadWaiting(int fd) {
  std::string text(1 << 20, '\0');
  fcntl(fd, F_SETFL, O_NONBLOCK);
  const ssize_t size = read(fd, text.data(), text.size());
  text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
  return text;
}

int Waiting(int fd) {
  int size = -1;
  ioctl(fd, FIONREAD, &size);
  return size;
}

TEST(DebugOutput, WritesUtf8WhereverStandardErrorGoes) {
  char path[] = "/tmp/talvorn-output-XXXXXX";
  const Descriptor file(mkstemp(path));
  unlink(path);
  const Ends pipe = Pipe();
  const Ends stream = SocketPair(SOCK_STREAM);
  const std::pair<int, int> targets[] = {{pipe.writer.get(), pipe.reader.get()},
                                         {stream.writer.get(), stream.reader.get()},
                                         {file.get(), file.get()}};
  for (const auto& [writer, reader] : targets) {
    {
      const Redirection redirection(writer);
      DebugOutputW(u"wide \u00FC\n");
      DebugOutputW(u"");
      DebugOutputA("narrow \xFC \x80\n");
      DebugOutputA("path \xC3\xBC\n");
    }
    lseek(file.get(), 0, SEEK_SET);
    EXPECT_EQ(ReadWaiting(reader), "wide \xC3\xBC\nnarrow \xC3\xBC \xE2\x82\xAC\npath \xC3\xBC\n");
  }
}

TEST(DebugOutput, IsOneWritePerString) {
  const Ends ends = SocketPair(SOCK_SEQPACKET);
  {
    const Redirection redirection(ends.writer.get());
    DebugOutputW(u"first line\nsecond line\n");
    DebugOutputA("next");
  }
  EXPECT_EQ(ReadWaiting(ends.reader.get()), "first line\nsecond line\n");
  EXPECT_EQ(ReadWaiting(ends.reader.get()), "next");
}

TEST(DebugOutput, NeitherBlocksOnAReaderThatIsFullNorDiesOfOneThatIsGone) {
  for (const bool isPipe : {true, false}) {
    Ends ends = isPipe ? Pipe() : SocketPair(SOCK_STREAM);
    {
      const Redirection redirection(ends.writer.get());
      for (int i = 0; i < 100; ++i) {
        DebugOutputA("short\n");
        DebugOutputA(std::string(100'000, 'x'));
      }
    }
    EXPECT_GT(Waiting(ends.reader.get()), 50'000);
    // The descriptor that others share is left as it was.
    EXPECT_EQ(fcntl(ends.writer.get(), F_GETFL) & O_NONBLOCK, 0);
    ends.reader.Close();
    const Redirection redirection(ends.writer.get());
    DebugOutputA("nobody reads this\n");
  }
}

}  // namespace
}  // namespace talvorn::platform
