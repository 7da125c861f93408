// The file behind a named object. The object exists while some process has a lock on the file; the
// kernel takes it from a killed one. The last holder removes the file, which is one record in the
// machine's byte order:
//
//   offset  width
//        0      4  "TLVO"
//        4      4  kind of the object
//        8      4  state of an event: 0, or set
//       12      4  zero
//       16      8  number of the last signal, different from all before it
//       24      8  kept for those who wait for an auto-reset event
//
// Anybody may write to it: trust nothing in it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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

// A hold on the object of one name; none at first.
class ObjectFile {
 public:
  explicit ObjectFile(std::u16string_view name);
  ~ObjectFile();
  ObjectFile(const ObjectFile&) = delete;
  ObjectFile& operator=(const ObjectFile&) = delete;

  // Holds the object if some process holds it, or makes it with `kind`.
  void Open();
  void Create(ObjectKind kind);

  [[nodiscard]] bool held() const { return file_.valid(); }
  // Whether the file is still the one under its name, in the folder of now.
  [[nodiscard]] bool IsInPlace() const;
  // Whether somebody else had a lock on the file, of whatever kind and content.
  [[nodiscard]] bool claimed() const { return claimed_; }
  [[nodiscard]] int descriptor() const { return file_.get(); }
  // Of the time when the object was opened.
  [[nodiscard]] ObjectKind kind() const { return kind_; }

  // What is missing in a damaged file counts as zero.
  [[nodiscard]] ObjectRecord Read() const;
  // The state with a new signal number.
  bool WriteSignal(std::uint32_t state) const;
  bool WriteState(std::uint32_t state) const;

 private:
  enum class Attempt { kFinal, kMoved, kLocked };

  // Holds the file that stands under the name, or one that it makes with `kind`, if any.
  Attempt TryHold(std::optional<ObjectKind> kind);
  // The same, again for as long as others make and remove the file.
  Attempt Hold(std::optional<ObjectKind> kind);
  [[nodiscard]] bool IsNamed(const Descriptor& file) const;
  bool Remove() const;

  std::string name_;
  Descriptor directory_;
  Descriptor file_;
  ObjectKind kind_{};
  bool claimed_ = false;
};

}  // namespace talvorn::platform
