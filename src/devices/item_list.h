// The items that devices attached to their records, each kept until it is no longer
// confirmed. Receivers and status queries add, the command server takes snapshots, a
// thread of the list expires. New, changed and expired items pulse change events.
//
// Add and GetItems do not lock: callers hold `lock` around each call.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <unordered_map>
#include <unordered_set>

#include "devices/expiry_thread.h"
#include "devices/item_record.h"
#include "devices/keyed_hash.h"
#include "platform/digest.h"
#include "platform/thread.h"
#include "support/file_time.h"
#include "support/run_flag.h"

namespace talvorn {

class CItemList {
 public:
  explicit CItemList(Clock& clock = platform::SystemClock()) : clock_(clock) {}
  ~CItemList();
  CItemList(const CItemList&) = delete;
  CItemList& operator=(const CItemList&) = delete;

  // Sets the validity of items and starts the expiry thread. False when the thread
  // could not be started: items are then kept for ever.
  bool Start(std::uint32_t validityMs);
  void Stop();

  // A number of items and their bytes in the snapshot.
  struct Usage {
    std::uint32_t items = 0;
    std::size_t bytes = 0;

    [[nodiscard]] bool HasRoomFor(std::size_t size, const Usage& most) const;
    void Add(std::size_t size);
    void Remove(std::size_t size);
  };
  // Far more than any network has, and a reply that every client can still take.
  static constexpr Usage kMost{500'000, 128 << 20};
  // One device that goes wild leaves room for others.
  static constexpr Usage kMostOfDevice{kMost.items / 8, kMost.bytes / 8};

  // Stores one item of the device `serial`, or moves the expiry of the stored one
  // forward when the identity of both is the same. A full list takes no new items.
  void Add(std::uint32_t serial, const ItemView& item);

  // All items, newest first and back to back: the serial (4 bytes, little-endian)
  // and the item as received, 24 + bodyLength bytes each. The block belongs to the
  // list and lives until the next call. Empty without memory.
  std::span<const std::byte> GetItems();

  // Frees the block before the next call would.
  void DropSnapshot() { snapshot_.reset(); }

  // Drops the items whose time is over. Takes the lock, and lets go of it from time to
  // time; signals without it.
  void Sweep();

  // Procedure of the expiry thread: sweeps once a second until the list is stopped.
  std::uint32_t ThreadTimeout();

  // Number of items; may be read without the lock.
  [[nodiscard]] std::uint32_t count() const { return count_.load(std::memory_order_relaxed); }

  std::recursive_mutex lock;

 private:
  // One allocation with the copy of the item behind it.
  struct ItemNode {
    FileTime expiry = 0;  // local time
    platform::Sha1Digest digest{};
    ItemNode* next = nullptr;
    std::uint32_t serial = 0;
    std::uint32_t itemSize = 0;

    [[nodiscard]] std::byte* item() { return reinterpret_cast<std::byte*>(this + 1); }
    [[nodiscard]] std::span<const std::byte> bytes() { return {item(), itemSize}; }
    [[nodiscard]] std::size_t entrySize() const { return sizeof(serial) + itemSize; }
  };

  struct Identity {
    std::uint32_t serial;
    const platform::Sha1Digest& digest;
  };
  static Identity IdentityOf(const ItemNode* node) { return {node->serial, node->digest}; }
  static Identity IdentityOf(const Identity& identity) { return identity; }
  struct IdentityHash {
    using is_transparent = void;
    std::size_t operator()(const auto& key) const { return Hash(IdentityOf(key)); }
    std::size_t Hash(const Identity& identity) const;
    KeyedHash<platform::kSha1Size / sizeof(std::uint32_t) + 1> hash;
  };
  struct IdentityEqual {
    using is_transparent = void;
    bool operator()(const auto& left, const auto& right) const {
      const Identity a = IdentityOf(left);
      const Identity b = IdentityOf(right);
      return a.serial == b.serial && a.digest == b.digest;
    }
  };

  struct SerialHash {
    std::size_t operator()(std::uint32_t serial) const { return hash({serial}); }
    KeyedHash<1> hash;
  };

  struct FreeNode {
    void operator()(ItemNode* node) const;
  };
  using NodePointer = std::unique_ptr<ItemNode, FreeNode>;
  static NodePointer MakeNode(std::uint32_t serial, const ItemView& item);

  // Looks at a piece of the list from `link` on, which moves, and takes the expired
  // nodes out, which it returns in list order. `link` becomes null at the list's end;
  // nobody else takes nodes out, so until then it stays good without the lock.
  ItemNode* UnlinkExpired(FileTime now, ItemNode**& link);
  void Forget(ItemNode& node);
  void SignalAndFree(ItemNode* removed);

  ItemNode* head_ = nullptr;
  std::unordered_set<ItemNode*, IdentityHash, IdentityEqual> index_;
  Usage total_;
  std::unordered_map<std::uint32_t, Usage, SerialHash> usage_;
  std::atomic<std::uint32_t> count_{0};
  std::unique_ptr<std::byte[]> snapshot_;
  FileTime validity_ = 10 * platform::kFileTimePerSecond;
  FreedEntries freed_;  // the sweeps' own
  RunFlag running_;
  platform::Thread thread_;
  Clock& clock_;
};

}  // namespace talvorn
