#include "platform/console.h"

#include <gtest/gtest.h>

#include <array>

#include "platform/win32/handle.h"

namespace talvorn::platform {
namespace {

TEST(Console, PipeGetsUtf8AndAnAbandonedOneIsNoticed) {
  KernelHandle reader;
  KernelHandle writer;
  ASSERT_TRUE(CreatePipe(reader.Receive(), writer.Receive(), nullptr, 0));
  const HANDLE before = GetStdHandle(STD_OUTPUT_HANDLE);
  SetStdHandle(STD_OUTPUT_HANDLE, writer.get());
  const bool written = WriteOutput("Gr\xC3\xBC\xC3\x9F\x65\n");
  const bool terminal = OutputIsTerminal();
  const bool sized = OutputTerminalSize().has_value();
  const bool abandonedEarly = OutputAbandoned();
  std::array<char, 32> buffer{};
  DWORD size = 0;
  const bool read = ReadFile(reader.get(), buffer.data(), buffer.size(), &size, nullptr) != FALSE;
  reader.Close();
  const bool abandoned = OutputAbandoned();
  const bool writtenLate = WriteOutput("too late");
  SetStdHandle(STD_OUTPUT_HANDLE, before);

  EXPECT_TRUE(written);
  EXPECT_FALSE(terminal);
  EXPECT_FALSE(sized);
  EXPECT_FALSE(abandonedEarly);
  ASSERT_TRUE(read);
  EXPECT_EQ(std::string(buffer.data(), size), "Gr\xC3\xBC\xC3\x9F\x65\n");
  EXPECT_TRUE(abandoned);
  EXPECT_FALSE(writtenLate);
}

}  // namespace
}  // namespace talvorn::platform
