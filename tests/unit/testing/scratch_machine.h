// A machine of its own for one test, which goes with the object. On Linux: runtime
// directory and registry in a temporary directory. On Windows: a temporary directory,
// and the locator's keys of the registry, whose values are lost.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <string_view>

namespace talvorn::testing {

// A value of the registry as it is stored: its type's number and its bytes.
struct Stored {
  std::uint32_t type;
  std::string data;

  friend std::ostream& operator<<(std::ostream& out, const Stored& stored) {
    return out << "type " << stored.type << ", " << stored.data.size() << " bytes";
  }
};

class ScratchMachine {
 public:
  ScratchMachine();
  ~ScratchMachine();
  ScratchMachine(const ScratchMachine&) = delete;
  ScratchMachine& operator=(const ScratchMachine&) = delete;

  [[nodiscard]] std::filesystem::path root() const { return root_; }
  // The file that holds the registry; on Linux only.
  [[nodiscard]] std::filesystem::path registry() const;
  // Makes the key, if need be, and puts exactly these bytes there; on Linux in place of
  // everything else.
  void Store(std::string_view key, std::string_view name, const Stored& value) const;

 private:
  std::filesystem::path root_;
};

}  // namespace talvorn::testing
