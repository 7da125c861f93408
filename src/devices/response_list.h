// The device records heard recently: one entry per device and address family, each
// with the time at which it stops being valid. Receivers and status queries add,
// the command server takes merged snapshots, a thread of the list expires.
//
// Add and GetResponses do not lock: callers hold `lock` around each call.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "devices/device_record.h"
#include "devices/expiry_thread.h"
#include "platform/thread.h"
#include "support/file_time.h"
#include "support/run_flag.h"

namespace talvorn {

class CResponseList {
 public:
  explicit CResponseList(Clock& clock = platform::SystemClock()) : clock_(clock) {}
  ~CResponseList() { Stop(); }
  CResponseList(const CResponseList&) = delete;
  CResponseList& operator=(const CResponseList&) = delete;

  // Sets the default validity and starts the expiry thread. False when the thread
  // could not be started: entries are then kept for ever.
  bool Start(std::uint32_t validityMs);
  void Stop();

  // Far more than any network has, and a reply that every client can still take.
  static constexpr std::size_t kMostEntries = 500'000;

  // Stores or refreshes the entry of a record. Validity 0 means the default. False
  // for a null record only. A full list takes no new entries.
  bool Add(const DeviceRecord* record, std::uint32_t validityMs);

  // Hands out `snapshot`, one merged record of 367 bytes per device in ascending
  // order of serial, and returns their number. The block belongs to the list and
  // lives until the next call. Where a device is known by both families,
  // `preferredVersion` 6 drops its IPv4 address, any other value its IPv6 address.
  std::uint32_t GetResponses(const std::byte*& snapshot, std::uint32_t preferredVersion);

  // Frees the block before the next call would.
  void DropSnapshot() { snapshot_.reset(); }

  // Drops the entries whose time is over. Takes the lock, and lets go of it from time
  // to time.
  void Sweep();

  // Procedure of the expiry thread: sweeps once a second until the list is stopped.
  std::uint32_t ThreadTimeout();

  // Number of entries; may be read without the lock.
  [[nodiscard]] std::uint32_t count() const { return count_.load(std::memory_order_relaxed); }

  std::recursive_mutex lock;

 private:
  struct Entry {
    DeviceRecord record;
    FileTime expiry = 0;  // local time
  };
  // Serials sort as text over their first 7 characters: as a big-endian number of
  // these bytes, zero behind the terminator. Entries of one serial stand in the
  // order in which they were made.
  using SerialKey = std::uint64_t;
  static SerialKey KeyOf(const DeviceRecord& record);

  using Entries = std::multimap<SerialKey, Entry>;
  // Sweeps on from `at`, or from the start when there is none. True while entries are
  // left; nobody else erases any, so `at` stays good without the lock.
  bool SweepPiece(FileTime now, std::optional<Entries::iterator>& at);

  std::unique_ptr<std::byte[]> snapshot_;
  Entries entries_;
  std::atomic<std::uint32_t> count_{0};
  FileTime defaultValidity_ = 10 * platform::kFileTimePerSecond;
  FreedEntries freed_;  // the sweeps' own
  RunFlag running_;
  platform::Thread thread_;
  Clock& clock_;
};

}  // namespace talvorn
