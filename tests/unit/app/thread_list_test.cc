#include "app/thread_list.h"

#include <gtest/gtest.h>

namespace talvorn {
namespace {

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

}  // namespace
}  // namespace talvorn
