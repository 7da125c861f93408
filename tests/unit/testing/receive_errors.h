// The native errors of a receive, by what they mean for the socket.
#pragma once

#include <vector>

namespace talvorn::testing {

extern const std::vector<int> kPassingReceiveErrors;
extern const std::vector<int> kDeadlyReceiveErrors;

}  // namespace talvorn::testing
