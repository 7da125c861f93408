#include "testing/receive_errors.h"

#include "platform/win32/windows_api.h"

namespace talvorn::testing {

const std::vector<int> kPassingReceiveErrors = {WSAEINTR,       WSAEWOULDBLOCK, WSAENETDOWN,
                                                WSAECONNRESET,  WSAENETRESET,   WSAENOBUFS,
                                                WSAEHOSTUNREACH};
const std::vector<int> kDeadlyReceiveErrors = {WSAENOTSOCK, WSAEINVAL, WSANOTINITIALISED};

}  // namespace talvorn::testing
