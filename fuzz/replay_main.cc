// Runs a fuzz target over a committed corpus, without a fuzzer: every file as it is,
// every prefix of it, and each of its bytes turned over once.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "fuzz_target.h"

int main(int argc, char** argv) {
  std::size_t files = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream stream(entry.path(), std::ios::binary);
      std::vector<char> content{std::istreambuf_iterator<char>(stream), {}};
      std::vector<std::uint8_t> bytes(content.begin(), content.end());
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      for (std::size_t size = 0; size < bytes.size(); ++size) {
        LLVMFuzzerTestOneInput(bytes.data(), size);
        bytes[size] = static_cast<std::uint8_t>(~bytes[size]);
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
        bytes[size] = static_cast<std::uint8_t>(~bytes[size]);
      }
      ++files;
    }
  }
  std::cout << files << " corpus files replayed\n";
  return files == 0 ? 1 : 0;
}
