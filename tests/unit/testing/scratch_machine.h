// A machine of its own for one test, which goes with the object. On Linux: runtime
// directory and registry in a temporary directory. On Windows: a temporary directory,
// and the locator's keys of the registry, whose values are lost.
#pragma once

#include <filesystem>
#include <fstream>

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

 private:
  std::filesystem::path root_;
};

}  // namespace talvorn::testing
