#include "testing/scratch_machine.h"

#include <cstdlib>
#include <sstream>
#include <vector>

#include "platform/text_encoding.h"
#include "platform/win32/wide_text.h"
#include "platform/win32/windows_api.h"

namespace talvorn::testing {
namespace {

using platform::ToNative;
using platform::Utf8ToWide;

constexpr const wchar_t* kMaker = L"SOFTWARE\\Kestrow";

std::u16string PathOf(std::string_view software, std::string_view key) {
  return Utf8ToWide(std::string(software) + "\\Kestrow\\TAL-VORN\\" + std::string(key));
}

void SetValue(HKEY key, const std::u16string& name, DWORD type, const void* data,
              std::size_t size) {
  (void)RegSetValueExW(key, ToNative(name), 0, type, static_cast<const BYTE*>(data),
                       static_cast<DWORD>(size));
}

// The text between two quotes from `position` on, which moves behind the second.
std::string Quoted(std::string_view line, std::size_t& position) {
  std::string text;
  for (++position; position < line.size() && line[position] != '"'; ++position) {
    if (line[position] == '\\') ++position;
    text.push_back(line[position]);
  }
  ++position;
  return text;
}

std::vector<unsigned char> HexBytes(std::string_view list) {
  std::vector<unsigned char> bytes;
  std::istringstream numbers{std::string(list)};
  for (std::string number; std::getline(numbers, number, ',');) {
    bytes.push_back(static_cast<unsigned char>(std::strtoul(number.c_str(), nullptr, 16)));
  }
  return bytes;
}

void SetValueOfLine(HKEY key, std::string_view line) {
  std::size_t position = 0;
  if (line.empty() || line[0] != '"') return;
  const std::u16string name = Utf8ToWide(Quoted(line, position));
  std::string_view data = line.substr(position + 1);
  if (data.starts_with("dword:")) {
    const DWORD number = std::strtoul(std::string(data.substr(6)).c_str(), nullptr, 16);
    SetValue(key, name, REG_DWORD, &number, sizeof(number));
  } else if (data.starts_with("hex(")) {
    const DWORD type = std::strtoul(std::string(data.substr(4)).c_str(), nullptr, 16);
    const auto bytes = HexBytes(data.substr(data.find(':') + 1));
    SetValue(key, name, type, bytes.data(), bytes.size());
  } else {
    position = 0;
    const std::u16string text = Utf8ToWide(Quoted(data, position));
    SetValue(key, name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(char16_t));
  }
}

void RemoveKeys() { (void)RegDeleteTreeW(HKEY_LOCAL_MACHINE, kMaker); }

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

void ScratchMachine::WriteKey(std::string_view software, std::string_view key,
                              std::string_view values) const {
  RemoveKeys();
  HKEY handle = nullptr;
  if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, ToNative(PathOf(software, key)), 0, nullptr, 0,
                      KEY_ALL_ACCESS, nullptr, &handle, nullptr) != ERROR_SUCCESS) {
    return;
  }
  std::istringstream lines{std::string(values)};
  for (std::string line; std::getline(lines, line);) SetValueOfLine(handle, line);
  RegCloseKey(handle);
}

// Under Wine a message is a datagram between two sockets, with their limit.
std::size_t ScratchMachine::LargestMailslotMessage() const {
  constexpr std::size_t kUnderWine = 200'000;
  constexpr std::size_t kOnWindows = 256 << 20;
  const HMODULE library = GetModuleHandleW(L"ntdll.dll");
  return GetProcAddress(library, "wine_get_version") != nullptr ? kUnderWine : kOnWindows;
}

}  // namespace talvorn::testing
