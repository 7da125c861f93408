#include "support/debug_trace.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "testing/trace_capture.h"

namespace talvorn {
namespace {

class DebugTraceTest : public ::testing::Test {
 protected:
  DebugTraceTest() {
    DebugTrace().SetEnabled(1);
    DebugTrace().SetPrefix(u"TALVORNApp: ");
  }
  ~DebugTraceTest() override { DebugTrace().SetEnabled(0); }

  template <class Write>
  static std::string OutputOf(Write write) {
    testing::TraceCapture capture;
    write();
    return capture.Take();
  }
};

TEST_F(DebugTraceTest, PrefixesEveryLineAndEndsTheLastOne) {
  const std::pair<std::u16string, std::string> cases[] = {
      {u"Service loop entry", "TALVORNApp: Service loop entry\n"},
      {u"EXIT\n", "TALVORNApp: EXIT\n"},
      {u"A\nB", "TALVORNApp: A\nTALVORNApp: B\n"},
      {u"A\n\nB", "TALVORNApp: A\nTALVORNApp: \nTALVORNApp: B\n"},
      {u"A\r\n", "TALVORNApp: A\r\n"},
      {u"\n", "TALVORNApp: \n"},
      {u"", ""},
  };
  for (const auto& [text, output] : cases) EXPECT_EQ(OutputOf([&] { Trace(u"%s", text); }), output);
}

TEST_F(DebugTraceTest, TheSwitchStopsAllButTheLinesThatAreAlwaysWritten) {
  DebugTrace().SetEnabled(0);
  EXPECT_EQ(OutputOf([] {
              Trace(u"wide");
              TraceA("narrow");
              TraceAlwaysA("%s a\nb", "always");
            }),
            "always a\nb");
}

TEST_F(DebugTraceTest, LinesOfSeveralThreadsDoNotMix) {
  const std::string output = OutputOf([] {
    std::vector<std::thread> threads;
    for (const char16_t* text : {u"aaaa\naaaa", u"bbbb\nbbbb"}) {
      threads.emplace_back([text] {
        for (int i = 0; i < 200; ++i) Trace(u"%s", text);
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  std::size_t pairs = 0;
  for (std::string_view rest = output; !rest.empty(); ++pairs) {
    const bool a = rest.starts_with("TALVORNApp: aaaa\nTALVORNApp: aaaa\n");
    const bool b = rest.starts_with("TALVORNApp: bbbb\nTALVORNApp: bbbb\n");
    ASSERT_TRUE(a || b) << rest.substr(0, 80);
    rest.remove_prefix(2 * std::string_view("TALVORNApp: aaaa\n").size());
  }
  EXPECT_EQ(pairs, 400u);
}

}  // namespace
}  // namespace talvorn
