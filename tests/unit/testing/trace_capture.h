// What this process writes as debugger output while the object lives, in UTF-8. One at
// a time.
#pragma once

#include <string>

namespace talvorn::testing {

class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // Ends the capture.
  [[nodiscard]] std::string Take();

 private:
  bool capturing_ = true;
};

}  // namespace talvorn::testing
