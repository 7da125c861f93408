#include "testing/scratch_machine.h"

#include <stdlib.h>

namespace talvorn::testing {

ScratchMachine::ScratchMachine() {
  std::string name = (std::filesystem::temp_directory_path() / "talvorn-test-XXXXXX").string();
  root_ = ::mkdtemp(name.data());
  std::filesystem::create_directories(root_ / "run/mailslot");
  std::filesystem::create_directories(root_ / "run/objects");
  ::setenv("TALVORN_RUNTIME_DIR", (root_ / "run").c_str(), 1);
  ::setenv("TALVORN_REGISTRY", registry().c_str(), 1);
  ::setenv("TALVORN_JOURNAL_SOCKET", (root_ / "journal").c_str(), 1);
}

ScratchMachine::~ScratchMachine() {
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

std::filesystem::path ScratchMachine::registry() const { return root_ / "talvorn.reg"; }

void ScratchMachine::Store(std::string_view key, std::string_view name, const Stored& value) const {
  std::ofstream file(registry(), std::ios::trunc);
  file << "[HKEY_LOCAL_MACHINE\\" << key << "]\n\"" << name << "\"=hex(" << std::hex << value.type
       << "):";
  for (const unsigned char byte : value.data) file << unsigned{byte} << ',';
  file << '\n';
}

}  // namespace talvorn::testing
