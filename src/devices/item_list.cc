#include "devices/item_list.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "devices/change_event.h"
#include "devices/item_hash.h"
#include "support/byte_io.h"
#include "support/debug_trace.h"
#include "support/thread.h"

namespace talvorn {

CItemList::~CItemList() {
  Stop();
  while (head_ != nullptr) head_ = NodePointer(head_)->next;
}

std::size_t CItemList::IdentityHash::Hash(const Identity& identity) const {
  constexpr std::size_t kDigestWords = platform::kSha1Size / sizeof(std::uint32_t);
  std::array<std::uint32_t, kDigestWords + 1> words{};
  std::memcpy(words.data(), identity.digest.data(), platform::kSha1Size);
  words.back() = identity.serial;
  return hash(words);
}

bool CItemList::Usage::HasRoomFor(std::size_t size, const Usage& most) const {
  return items < most.items && bytes + size <= most.bytes;
}

void CItemList::Usage::Add(std::size_t size) {
  ++items;
  bytes += size;
}

void CItemList::Usage::Remove(std::size_t size) {
  --items;
  bytes -= size;
}

CItemList::NodePointer CItemList::MakeNode(std::uint32_t serial, const ItemView& item) {
  NodePointer node(new (::operator new(sizeof(ItemNode) + item.size())) ItemNode);
  node->serial = serial;
  node->itemSize = static_cast<std::uint32_t>(item.size());
  std::ranges::copy(item.bytes(), node->item());
  return node;
}

void CItemList::FreeNode::operator()(ItemNode* node) const {
  node->~ItemNode();
  ::operator delete(node);
}

bool CItemList::Start(std::uint32_t validityMs) {
  validity_ = validityMs * platform::kFileTimePerMs;
  running_.Set();
  thread_ = StartThread("item-list", [this] { return ThreadTimeout(); });
  return thread_.valid();
}

std::uint32_t CItemList::ThreadTimeout() {
  SweepWhile(running_, [this] { Sweep(); });
  return 0;
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

  const std::size_t size = sizeof(serial) + item.size();
  if (!total_.HasRoomFor(size, kMost)) return;
  Usage& ofDevice = usage_[serial];
  if (!ofDevice.HasRoomFor(size, kMostOfDevice)) return;
  NodePointer node = MakeNode(serial, item);
  node->expiry = expiry;
  node->digest = hash.digest;
  node->next = head_;
  index_.insert(node.get());
  total_.Add(size);
  ofDevice.Add(size);
  count_.store(total_.items, std::memory_order_relaxed);
  head_ = node.release();

  SignalChange(serial);
  SignalChange(kWholeList);
}

void CItemList::Sweep() {
  const FileTime now = clock_.LocalTime();
  const TimeOfDay time = ToTimeOfDay(now);
  Trace(u"CItemList::ThreadTimeout()   Time: %02u:%02u:%02u", time.hour, time.minute, time.second);
  bool changed = false;
  for (ItemNode** link = &head_; link != nullptr;) {
    ItemNode* const removed = UnlinkExpired(now, link);
    changed = changed || removed != nullptr;
    SignalAndFree(removed);
    if (link != nullptr) clock_.Sleep(kSweepPauseMs);
  }
  if (changed) SignalChange(kWholeList);
  freed_.GiveBack();
}

CItemList::ItemNode* CItemList::UnlinkExpired(FileTime now, ItemNode**& link) {
  const std::lock_guard guard(lock);
  const bool traced = DebugTrace().isEnabled();
  ItemNode* removed = nullptr;
  ItemNode** lastRemoved = &removed;
  for (std::size_t i = 0; i < kSweepPiece && *link != nullptr; ++i) {
    ItemNode* const node = *link;
    if (traced) {
      const TimeOfDay expires = ToTimeOfDay(node->expiry);
      Trace(u"CItemList::ThreadTimeout()  Item  %07u Time: %02u:%02u:%02u", node->serial,
            expires.hour, expires.minute, expires.second);
      Trace(u"CItemList::ThreadTimeout()  Item  %llu", node->expiry);
    }
    if (node->expiry < now) {
      Forget(*node);
      *link = node->next;
      node->next = nullptr;
      *lastRemoved = node;
      lastRemoved = &node->next;
    } else {
      link = &node->next;
    }
  }
  if (*link == nullptr) link = nullptr;
  return removed;
}

void CItemList::Forget(ItemNode& node) {
  index_.erase(&node);
  total_.Remove(node.entrySize());
  const auto ofDevice = usage_.find(node.serial);
  ofDevice->second.Remove(node.entrySize());
  if (ofDevice->second.items == 0) usage_.erase(ofDevice);
  count_.store(total_.items, std::memory_order_relaxed);
}

void CItemList::SignalAndFree(ItemNode* removed) {
  while (removed != nullptr) {
    const NodePointer node(removed);
    removed = node->next;
    SignalChange(node->serial);
    freed_.Count();
  }
}

std::span<const std::byte> CItemList::GetItems() {
  snapshot_.reset();
  snapshot_.reset(new (std::nothrow) std::byte[total_.bytes]);
  if (!snapshot_) return {};

  const std::span<std::byte> buffer(snapshot_.get(), total_.bytes);
  ByteWriter writer(buffer);
  for (ItemNode* node = head_; node != nullptr; node = node->next) {
    writer.U32Little(node->serial);
    writer.Bytes(node->bytes());
  }
  return buffer;
}

}  // namespace talvorn
