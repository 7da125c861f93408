#include "app/thread_list.h"

#include <new>

#include "support/debug_trace.h"

namespace talvorn {

CThreadList::~CThreadList() {
  while (head != nullptr) {
    ThreadItem* const item = head;
    head = item->next;
    delete item;
  }
}

ThreadItem* CThreadList::AddItem(std::uint32_t id) {
  const std::lock_guard guard(lock);
  current = new (std::nothrow) ThreadItem;
  if (current == nullptr) return nullptr;
  current->id = id;
  ThreadItem** end = &head;
  while (*end != nullptr) end = &(*end)->next;
  *end = current;
  return current;
}

ThreadItem* CThreadList::FindItem(std::uint32_t id) {
  const std::lock_guard guard(lock);
  for (ThreadItem* item = head; item != nullptr; item = item->next) {
    if (item->id == id) return item;
  }
  return nullptr;
}

ThreadItem* CThreadList::First() {
  const std::lock_guard guard(lock);
  current = head;
  return current;
}

ThreadItem* CThreadList::Next() {
  const std::lock_guard guard(lock);
  if (current != nullptr) current = current->next;
  return current;
}

void CThreadList::DeleteItem(std::uint32_t id) {
  const std::lock_guard guard(lock);
  for (ThreadItem** link = &head; *link != nullptr; link = &(*link)->next) {
    ThreadItem* const item = *link;
    if (item->id != id) continue;
    *link = item->next;
    if (item == current) current = nullptr;
    Trace(u"ThreadList DeleteItem Thread[0x%08x] end ID = %u", item->handleValue, item->id);
    delete item;
    return;
  }
}

void CThreadList::ShutDownAll() {
  const std::lock_guard guard(lock);
  for (ThreadItem* item = head; item != nullptr; item = item->next) {
    Trace(u"ThreadList ShutDownAll Thread[0x%08x] ID = %u", item->handleValue, item->id);
    item->running.Clear();
  }
}

void CThreadList::WaitAll() {
  const std::lock_guard guard(lock);
  for (ThreadItem* item = head; item != nullptr; item = item->next) {
    Trace(u"ThreadList WaitAll for Thread[0x%08x] end ID = %u", item->handleValue, item->id);
    item->thread.Join();
  }
}

void CThreadList::DeleteItemAll() {
  const std::lock_guard guard(lock);
  current = nullptr;
  while (head != nullptr) {
    ThreadItem* const item = head;
    Trace(u"ThreadList DeleteItemAll Thread[0x%08x] end ID = %u", item->handleValue, item->id);
    head = item->next;
    delete item;
  }
}

}  // namespace talvorn
