// The file behind a named object. The object exists as long as some process holds
// a lock on its file, which the system takes from a process that is killed; the
// last holder removes the file.
//
// The file is one record in the machine's byte order:
//
//   offset  width
//        0      4  "TLVO"
//        4      4  kind of the object
//        8      4  state of an event: 0, or set
//       12      4  zero
//       16      8  number of the last signal, different from all before it
//       24      8  kept for those who wait for an auto-reset event
//
// Anybody may write to it, so nothing in it is believed but what the holder can
// bear.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "platform/posix/descriptor.h"

namespace talvorn::platform {

// We make no auto-reset events, but signal those of others.
enum class ObjectKind : std::uint32_t { kMutex = 1, kAutoResetEvent = 2, kManualResetEvent = 3 };

struct ObjectRecord {
  std::uint32_t mark = 0;
  ObjectKind kind{};
  std::uint32_t state = 0;
  std::uint32_t zero = 0;
  std::uint64_t signal = 0;
  std::uint64_t consumed = 0;
};

// A hold on an object.
class ObjectFile {
 public:
  ObjectFile() = default;  // none
  ~ObjectFile();
  ObjectFile(ObjectFile&& other) noexcept = default;
  ObjectFile& operator=(ObjectFile&& other) = delete;

  // Holds the object `name` if some process holds it, or makes it with `kind`.
  [[nodiscard]] static ObjectFile Open(std::u16string_view name);
  [[nodiscard]] static ObjectFile Create(std::u16string_view name, ObjectKind kind);

  // True while somebody has a lock on a file of this name, of whatever kind and content.
  [[nodiscard]] static bool IsClaimed(std::u16string_view name);

  [[nodiscard]] bool valid() const { return file_.valid(); }
  [[nodiscard]] int descriptor() const { return file_.get(); }
  // Of the time when the object was opened.
  [[nodiscard]] ObjectKind kind() const { return kind_; }

  // What is missing in a damaged file counts as zero.
  [[nodiscard]] ObjectRecord Read() const;
  // The state with a new signal number.
  bool WriteSignal(std::uint32_t state) const;
  bool WriteState(std::uint32_t state) const;

 private:
  enum class Hold { kHeld, kAbsent, kStale, kLocked, kMoved, kBarred };

  // Nothing held yet: the folder and the name in it.
  ObjectFile(std::u16string_view name, bool makeFolder);

  // One attempt to hold the file that stands under the name. `stale` gets a file
  // that nobody holds.
  Hold TryHold(Descriptor& stale);
  // One attempt to make the object: false when the attempt may be repeated, true
  // when it is held then or cannot be made.
  bool TryMake(Descriptor stale, ObjectKind kind);
  // Removes a file that nobody holds, as far as that is allowed.
  void RemoveStale(const Descriptor& stale) const;

  Descriptor directory_;
  std::string name_;
  Descriptor file_;
  ObjectKind kind_{};
};

}  // namespace talvorn::platform
