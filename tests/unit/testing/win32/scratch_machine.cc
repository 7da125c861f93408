#include "testing/scratch_machine.h"

#include <string>

#include "platform/win32/windows_api.h"

namespace talvorn::testing {
namespace {

void RemoveKeys() { (void)RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Kestrow"); }

}  // namespace

ScratchMachine::ScratchMachine() {
  static int counter = 0;
  RemoveKeys();
  root_ =
      std::filesystem::temp_directory_path() /
      ("talvorn-test-" + std::to_string(GetCurrentProcessId()) + '-' + std::to_string(++counter));
  std::filesystem::create_directories(root_);
}

ScratchMachine::~ScratchMachine() {
  RemoveKeys();
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

}  // namespace talvorn::testing
