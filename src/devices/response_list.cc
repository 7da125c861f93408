#include "devices/response_list.h"

#include <new>

#include "support/debug_trace.h"
#include "support/thread.h"

namespace talvorn {
namespace {

// Takes over the addresses that `record` lacks.
void MergeAddresses(DeviceRecord& record, const DeviceRecord& other) {
  if (record.deviceIpv4.empty()) record.deviceIpv4 = other.deviceIpv4;
  if (record.deviceIpv6.empty()) record.deviceIpv6 = other.deviceIpv6;
}

void KeepPreferredAddress(DeviceRecord& record, std::uint32_t preferredVersion) {
  if (record.deviceIpv4.empty() || record.deviceIpv6.empty()) return;
  if (preferredVersion == 6) {
    record.deviceIpv4.Clear();
  } else {
    record.deviceIpv6.Clear();
  }
}

}  // namespace

CResponseList::SerialKey CResponseList::KeyOf(const DeviceRecord& record) {
  SerialKey key = 0;
  const std::string_view serial = record.deviceSerial.view();
  for (std::size_t i = 0; i < 7; ++i)
    key = key << 8 | (i < serial.size() ? static_cast<unsigned char>(serial[i]) : 0u);
  return key;
}

bool CResponseList::Start(std::uint32_t validityMs) {
  defaultValidity_ = validityMs * platform::kFileTimePerMs;
  running_.Set();
  thread_ = StartThread("response-list", [this] { return ThreadTimeout(); });
  return thread_.valid();
}

std::uint32_t CResponseList::ThreadTimeout() {
  SweepWhile(running_, [this] { Sweep(); });
  return 0;
}

void CResponseList::Stop() {
  running_.Clear();
  thread_.Join();
}

bool CResponseList::Add(const DeviceRecord* record, std::uint32_t validityMs) {
  if (record == nullptr) return false;
  const FileTime validity = validityMs * platform::kFileTimePerMs;
  const FileTime expiry = clock_.LocalTime() + (validity != 0 ? validity : defaultValidity_);
  if (DebugTrace().isEnabled()) {
    const TimeOfDay time = ToTimeOfDay(expiry);
    Trace(u"CResponseList::Add()  %07u Time: %02u:%02u:%02u", record->numericSerial(), time.hour,
          time.minute, time.second);
    Trace(u"CResponseList::Add()  %llu", expiry);
  }

  const SerialKey key = KeyOf(*record);
  const auto [first, last] = entries_.equal_range(key);
  for (auto entry = first; entry != last; ++entry) {
    if (entry->second.record.family() != record->family()) continue;
    entry->second = {*record, expiry};
    return true;
  }
  if (entries_.size() < kMostEntries) {
    entries_.emplace_hint(last, key, Entry{*record, expiry});
    count_.fetch_add(1, std::memory_order_relaxed);
  }
  return true;
}

void CResponseList::Sweep() {
  const FileTime now = clock_.LocalTime();
  const TimeOfDay time = ToTimeOfDay(now);
  Trace(u"CResponseList::ThreadTimeout()  Time: %02u:%02u:%02u", time.hour, time.minute,
        time.second);
  std::optional<Entries::iterator> at;
  while (SweepPiece(now, at)) clock_.Sleep(kSweepPauseMs);
  freed_.GiveBack();
}

bool CResponseList::SweepPiece(FileTime now, std::optional<Entries::iterator>& at) {
  const std::lock_guard guard(lock);
  const bool traced = DebugTrace().isEnabled();
  if (!at) at = entries_.begin();
  for (std::size_t i = 0; i < kSweepPiece && *at != entries_.end(); ++i) {
    const Entry& entry = (*at)->second;
    if (traced) {
      const TimeOfDay expires = ToTimeOfDay(entry.expiry);
      Trace(u"CResponseList::ThreadTimeout()  Item - %07u Time: %02u:%02u:%02u",
            entry.record.numericSerial(), expires.hour, expires.minute, expires.second);
      Trace(u"CResponseList::ThreadTimeout()  Item - %llu", entry.expiry);
    }
    if (entry.expiry < now) {
      at = entries_.erase(*at);
      count_.fetch_sub(1, std::memory_order_relaxed);
      freed_.Count();
    } else {
      ++*at;
    }
  }
  return *at != entries_.end();
}

std::uint32_t CResponseList::GetResponses(const std::byte*& snapshot,
                                          std::uint32_t preferredVersion) {
  snapshot = nullptr;
  snapshot_.reset();
  if (entries_.empty()) return 0;
  snapshot_.reset(new (std::nothrow) std::byte[entries_.size() * kDeviceRecordSize]);
  if (!snapshot_) return 0;
  snapshot = snapshot_.get();

  std::uint32_t retained = 0;
  for (auto at = entries_.begin(); at != entries_.end(); ++retained) {
    const SerialKey serial = at->first;
    DeviceRecord record = at->second.record;
    for (++at; at != entries_.end() && at->first == serial; ++at)
      MergeAddresses(record, at->second.record);
    KeepPreferredAddress(record, preferredVersion);
    const std::span<std::byte> slot(&snapshot_[retained * kDeviceRecordSize], kDeviceRecordSize);
    EncodeDeviceRecord(record, slot.first<kDeviceRecordSize>());
  }
  return retained;
}

}  // namespace talvorn
