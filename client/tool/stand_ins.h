// Stand-ins for names in what is sent to others.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace talvorn {

class StandIns {
 public:
  // The stand-in for a name, "device-3"; the same name has the same one. UTF-8.
  const std::string& For(std::string_view kind, std::string_view name);

  // The text with each of these names replaced, wherever it stands as a word of its own.
  [[nodiscard]] std::string WithoutNames(std::string_view text) const;

 private:
  struct LongestFirst {
    bool operator()(const std::string& left, const std::string& right) const {
      return left.size() != right.size() ? left.size() > right.size() : left < right;
    }
  };
  std::map<std::string, std::string, LongestFirst> names_;
};

}  // namespace talvorn
