#include "testing/scratch_machine.h"

#include <gtest/gtest.h>

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

void ScratchMachine::Store(std::string_view key, std::string_view name, const Stored& value) const {
  HKEY opened = nullptr;
  EXPECT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, std::string(key).c_str(), 0, nullptr, 0,
                            KEY_ALL_ACCESS, nullptr, &opened, nullptr),
            ERROR_SUCCESS);
  // The call takes in a terminator that happens to stand behind a text.
  const std::string data = value.data + "\xFF\xFF";
  EXPECT_EQ(RegSetValueExW(opened, std::wstring(name.begin(), name.end()).c_str(), 0, value.type,
                           reinterpret_cast<const BYTE*>(data.data()),
                           static_cast<DWORD>(value.data.size())),
            ERROR_SUCCESS);
  RegCloseKey(opened);
}

ScratchMachine::~ScratchMachine() {
  RemoveKeys();
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

}  // namespace talvorn::testing
