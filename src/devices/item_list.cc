#include "devices/item_list.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "devices/change_event.h"
#include "devices/expiry_thread.h"
#include "devices/item_hash.h"
#include "support/byte_io.h"
#include "support/debug_trace.h"

namespace talvorn {

CItemList::~CItemList() {
  Stop();
  while (head_ != nullptr) {
    ItemNode* const node = head_;
    head_ = node->next;
    FreeNode(node);
  }
}

std::size_t CItemList::IdentityHash::Hash(const Identity& identity) {
  std::size_t hash = 0;
  std::memcpy(&hash, identity.digest.data(), sizeof(hash));
  return hash ^ identity.serial;
}

CItemList::ItemNode* CItemList::MakeNode(std::uint32_t serial, const ItemView& item) {
  void* const memory = ::operator new(sizeof(ItemNode) + item.size(), std::nothrow);
  if (memory == nullptr) return nullptr;
  auto* const node = new (memory) ItemNode;
  node->serial = serial;
  node->itemSize = static_cast<std::uint32_t>(item.size());
  std::ranges::copy(item.bytes(), node->item());
  return node;
}

void CItemList::FreeNode(ItemNode* node) {
  node->~ItemNode();
  ::operator delete(node);
}

bool CItemList::Start(std::uint32_t validityMs) {
  validity_ = validityMs * platform::kFileTimePerMs;
  running_.Set();
  thread_ = platform::Thread::Start("item-list", [this] {
    SweepWhile(running_, [this] { Sweep(); });
    return 0u;
  });
  return thread_.valid();
}

void CItemList::Stop() {
  running_.Clear();
  thread_.Join();
}

void CItemList::Add(std::uint32_t serial, const ItemView& item) {
  const FileTime expiry = clock_.LocalTime() + validity_;
  if (DebugTrace().isEnabled()) {
    const TimeOfDay time = ToTimeOfDay(expiry);
    Trace(u"Add Item  %07u Time: %02u:%02u:%02u", serial, time.hour, time.minute, time.second);
    Trace(u"Add Item  %llu", expiry);
  }

  CHashItem hash;
  hash.Compute(item.identity());
  if (const auto known = index_.find(Identity{serial, hash.digest}); known != index_.end()) {
    (*known)->expiry = expiry;
    return;
  }

  ItemNode* const node = MakeNode(serial, item);
  if (node == nullptr) return;
  node->expiry = expiry;
  node->digest = hash.digest;
  try {
    index_.insert(node);
  } catch (const std::bad_alloc&) {
    FreeNode(node);
    return;
  }
  node->next = head_;
  head_ = node;
  count_.fetch_add(1, std::memory_order_relaxed);

  SignalChange(serial);
  SignalChange(kWholeList);
}

void CItemList::Sweep() {
  ItemNode* removed = nullptr;
  {
    const std::lock_guard guard(lock);
    removed = UnlinkExpired();
  }
  const bool changed = removed != nullptr;
  while (removed != nullptr) {
    ItemNode* const node = removed;
    removed = node->next;
    SignalChange(node->serial);
    FreeNode(node);
  }
  if (changed) SignalChange(kWholeList);
}

CItemList::ItemNode* CItemList::UnlinkExpired() {
  const bool traced = DebugTrace().isEnabled();
  const FileTime now = clock_.LocalTime();
  const TimeOfDay time = ToTimeOfDay(now);
  Trace(u"CItemList::ThreadTimeout()   Time: %02u:%02u:%02u", time.hour, time.minute, time.second);

  ItemNode* removed = nullptr;
  ItemNode** lastRemoved = &removed;
  for (ItemNode** link = &head_; *link != nullptr;) {
    ItemNode* const node = *link;
    if (traced) {
      const TimeOfDay expires = ToTimeOfDay(node->expiry);
      Trace(u"CItemList::ThreadTimeout()  Item  %07u Time: %02u:%02u:%02u", node->serial,
            expires.hour, expires.minute, expires.second);
      Trace(u"CItemList::ThreadTimeout()  Item  %llu", node->expiry);
    }
    if (node->expiry < now) {
      index_.erase(node);
      count_.fetch_sub(1, std::memory_order_relaxed);
      *link = node->next;
      node->next = nullptr;
      *lastRemoved = node;
      lastRemoved = &node->next;
    } else {
      link = &node->next;
    }
  }
  return removed;
}

std::span<const std::byte> CItemList::GetItems() {
  snapshot_.reset();
  std::size_t total = 0;
  for (const ItemNode* node = head_; node != nullptr; node = node->next)
    total += sizeof(node->serial) + node->itemSize;
  snapshot_.reset(new (std::nothrow) std::byte[total]);
  if (!snapshot_) return {};

  const std::span<std::byte> buffer(snapshot_.get(), total);
  ByteWriter writer(buffer);
  for (ItemNode* node = head_; node != nullptr; node = node->next) {
    writer.U32Little(node->serial);
    writer.Bytes(node->bytes());
  }
  return buffer;
}

}  // namespace talvorn
