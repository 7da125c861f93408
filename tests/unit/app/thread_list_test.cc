#include "app/thread_list.h"

#include <gtest/gtest.h>

#include "support/debug_trace.h"
#include "testing/trace_capture.h"

namespace talvorn {
namespace {

TEST(ThreadList, KeepsItemsInTheOrderOfTheirInsertion) {
  CThreadList list;
  EXPECT_EQ(list.First(), nullptr);
  for (const std::uint32_t id : {3u, 1u, 2u}) {
    ASSERT_NE(list.AddItem(id), nullptr);
    EXPECT_EQ(list.Next(), nullptr) << "the new item is the last one";
  }
  EXPECT_EQ(list.First()->id, 3u);
  EXPECT_EQ(list.Next()->id, 1u);
  EXPECT_EQ(list.Next()->id, 2u);
  EXPECT_EQ(list.Next(), nullptr);
  EXPECT_EQ(list.Next(), nullptr);
}

TEST(ThreadList, DeletesTheFirstItemOfAnId) {
  CThreadList list;
  ThreadItem* const first = list.AddItem(1);
  ThreadItem* const second = list.AddItem(1);
  list.AddItem(2);
  EXPECT_EQ(list.FindItem(1), first);
  list.DeleteItem(1);
  EXPECT_EQ(list.FindItem(1), second);
  list.DeleteItem(9);

  // A walk that moves on before it deletes goes on; one that stands on the item ends.
  list.First();
  EXPECT_EQ(list.Next()->id, 2u);
  list.DeleteItem(1);
  EXPECT_EQ(list.First()->id, 2u);
  list.DeleteItem(2);
  EXPECT_EQ(list.Next(), nullptr);
}

TEST(ThreadList, AShutDownTracesThreeSweeps) {
  CThreadList list;
  for (const std::uint32_t id : {7u, 8u}) {
    ThreadItem* const item = list.AddItem(id);
    item->running.Set();
    item->handleValue = 0xAB;
    item->thread = platform::Thread::Start("test", [item] {
      const platform::Waitable* const cleared[] = {&item->running.cleared()};
      while (item->running) (void)platform::WaitForAny(cleared, std::nullopt);
      return 0u;
    });
  }
  DebugTrace().SetEnabled(1);
  DebugTrace().SetPrefix(u"");
  testing::TraceCapture capture;
  list.ShutDownAll();
  list.WaitAll();
  list.DeleteItemAll();
  list.ShutDownAll();
  DebugTrace().SetEnabled(0);
  EXPECT_EQ(capture.Take(),
            "ThreadList ShutDownAll Thread[0x000000ab] ID = 7\n"
            "ThreadList ShutDownAll Thread[0x000000ab] ID = 8\n"
            "ThreadList WaitAll for Thread[0x000000ab] end ID = 7\n"
            "ThreadList WaitAll for Thread[0x000000ab] end ID = 8\n"
            "ThreadList DeleteItemAll Thread[0x000000ab] end ID = 7\n"
            "ThreadList DeleteItemAll Thread[0x000000ab] end ID = 8\n");
  EXPECT_EQ(list.First(), nullptr);
}

}  // namespace
}  // namespace talvorn
