#include "platform/past_reports.h"

#include <algorithm>

#include "platform/posix/program_output.h"
#include "platform/text_encoding.h"

namespace talvorn::platform {

// Of the system's journal and of the locator's own.
std::vector<std::string> PastReports(std::span<const std::u16string_view> sources,
                                     std::size_t most) {
  std::vector<std::string> arguments = {"--quiet",           "--no-pager", "--namespace=+talvorn",
                                        "--output",          "short-iso",  "--lines",
                                        std::to_string(most)};
  for (const std::u16string_view source : sources) {
    arguments.emplace_back("--identifier");
    arguments.push_back(WideToUtf8(source));
  }
  const std::string text = OutputOf("journalctl", arguments).value_or("");
  std::vector<std::string> reports;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    const std::size_t first = std::min(text.find_first_not_of(' ', begin), end);
    if (first > begin && !reports.empty())  // a further line of one report, far indented
      reports.back().append("\n  ").append(text, first, end - first);
    else
      reports.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return reports;
}

}  // namespace talvorn::platform
