// The per-interface request threads of one address family. Only the service thread
// changes a list; every operation takes the list's lock for its own duration.
#pragma once

#include <cstdint>
#include <mutex>

#include "discovery/thread_item.h"

namespace talvorn {

class CThreadList {
 public:
  CThreadList() = default;
  // Frees the remaining items without touching their threads.
  virtual ~CThreadList();
  CThreadList(const CThreadList&) = delete;
  CThreadList& operator=(const CThreadList&) = delete;

  // Appends a new item, of which only `id` is set, and makes it the current one.
  // Null without memory.
  ThreadItem* AddItem(std::uint32_t id);
  // The first item with this id, or null.
  [[nodiscard]] ThreadItem* FindItem(std::uint32_t id);

  // Walk over the items in the order of their insertion; null at the end.
  ThreadItem* First();
  ThreadItem* Next();

  // Frees the first item with this id, whose thread has ended.
  void DeleteItem(std::uint32_t id);

  // The three sweeps of a shut-down: tell all threads to end, wait for each without
  // limit, free the items.
  void ShutDownAll();
  void WaitAll();
  void DeleteItemAll();

 private:
  ThreadItem* head = nullptr;
  ThreadItem* current = nullptr;
  std::mutex lock;
};

}  // namespace talvorn
