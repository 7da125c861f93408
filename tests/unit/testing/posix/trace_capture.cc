#include "testing/trace_capture.h"

#include <gtest/gtest.h>

namespace talvorn::testing {

TraceCapture::TraceCapture() { ::testing::internal::CaptureStderr(); }

TraceCapture::~TraceCapture() {
  if (capturing_) (void)::testing::internal::GetCapturedStderr();
}

std::string TraceCapture::Take() {
  capturing_ = false;
  return ::testing::internal::GetCapturedStderr();
}

}  // namespace talvorn::testing
