// What somebody hostile may put where a file of the system's own is expected.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace talvorn::testing {

struct ThingInTheWay {
  std::string what;
  std::function<void()> Make;
};

// Things to make at `path`, in whose directory there is an object `neighbour`.
inline std::vector<ThingInTheWay> ThingsInTheWay(const std::filesystem::path& path,
                                                 const std::string& neighbour) {
  namespace fs = std::filesystem;
  return {{"a directory", [=] { fs::create_directory(path); }},
          {"a pipe", [=] { (void)::mkfifo(path.c_str(), 0666); }},
          {"a link to a neighbour", [=] { fs::create_symlink(neighbour, path); }},
          {"a link to nothing", [=] { fs::create_symlink("none", path); }},
          {"a second name of a neighbour",
           [=] { fs::create_hard_link(path.parent_path() / neighbour, path); }}};
}

}  // namespace talvorn::testing
