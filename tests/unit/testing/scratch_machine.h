// A machine of its own for one test: runtime directory and registry in a temporary
// directory that goes with the object.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace talvorn::testing {

class ScratchMachine {
 public:
  ScratchMachine() {
    std::string name = (std::filesystem::temp_directory_path() / "talvorn-test-XXXXXX").string();
    root_ = ::mkdtemp(name.data());
    std::filesystem::create_directories(root_ / "run/mailslot");
    std::filesystem::create_directories(root_ / "run/objects");
    ::setenv("TALVORN_RUNTIME_DIR", (root_ / "run").c_str(), 1);
    ::setenv("TALVORN_REGISTRY", registry().c_str(), 1);
    ::setenv("TALVORN_JOURNAL_SOCKET", (root_ / "journal").c_str(), 1);
  }
  ~ScratchMachine() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  ScratchMachine(const ScratchMachine&) = delete;
  ScratchMachine& operator=(const ScratchMachine&) = delete;

  [[nodiscard]] std::filesystem::path registry() const { return root_ / "talvorn.reg"; }
  [[nodiscard]] std::filesystem::path root() const { return root_; }

  // `values` are lines such as "DebugView"=dword:00000001.
  void WriteSettings(std::string_view values) const { WriteKey("Software", "Settings", values); }
  void WriteKey(std::string_view software, std::string_view key, std::string_view values) const {
    std::ofstream(registry(), std::ios::trunc)
        << "[HKEY_LOCAL_MACHINE\\" << software << "\\Kestrow\\TAL-VORN\\" << key << "]\n"
        << values << '\n';
  }

 private:
  std::filesystem::path root_;
};

}  // namespace talvorn::testing
