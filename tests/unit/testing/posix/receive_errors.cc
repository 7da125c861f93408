#include "testing/receive_errors.h"

#include <cerrno>

namespace talvorn::testing {

const std::vector<int> kPassingReceiveErrors = {
    EINTR, EAGAIN, ENETDOWN, ECONNRESET, ENETRESET, ECONNREFUSED, ENOBUFS, EHOSTUNREACH, ENOMEM};
const std::vector<int> kDeadlyReceiveErrors = {EBADF, ENOTSOCK, EINVAL};

}  // namespace talvorn::testing
