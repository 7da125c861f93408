// A machine of its own for one test, which goes with the object. On Linux: runtime
// directory and registry in a temporary directory. On Windows: a temporary directory,
// and the locator's keys of the registry, whose values are lost.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace talvorn::testing {

class ScratchMachine {
 public:
  ScratchMachine();
  ~ScratchMachine();
  ScratchMachine(const ScratchMachine&) = delete;
  ScratchMachine& operator=(const ScratchMachine&) = delete;

  [[nodiscard]] std::filesystem::path root() const { return root_; }
  // The file that holds the registry; on Linux only.
  [[nodiscard]] std::filesystem::path registry() const;

  // `values` are lines such as "DebugView"=dword:00000001. They become the only values
  // of the registry.
  void WriteSettings(std::string_view values) const { WriteKey("Software", "Settings", values); }
  void WriteKey(std::string_view software, std::string_view key, std::string_view values) const;

  // The largest message that a mailslot here is sure to take.
  [[nodiscard]] std::size_t LargestMailslotMessage() const;

 private:
  std::filesystem::path root_;
};

}  // namespace talvorn::testing
