// The Windows headers in their one order and with their one set of switches. Nothing else
// includes them, and no header outside win32/ includes this one.
#pragma once

// Windows 7. An earlier standard header may have set the compiler's default.
#undef _WIN32_WINNT
#define _WIN32_WINNT 0x0601
#undef WINVER
#define WINVER 0x0601
#undef NTDDI_VERSION
#define NTDDI_VERSION 0x06010000

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
// For inet_addr().
#ifndef _WINSOCK_DEPRECATED_NO_WARNINGS
#define _WINSOCK_DEPRECATED_NO_WARNINGS
#endif

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <mswsock.h>
#include <iphlpapi.h>
#include <windows.h>
#include <winternl.h>
#include <tlhelp32.h>
// clang-format on
