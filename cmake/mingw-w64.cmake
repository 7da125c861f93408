# Cross build for Windows x64 with mingw-w64 (Debian: g++-mingw-w64-x86-64-posix).
# Nothing but Windows' own libraries is linked dynamically.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(triple x86_64-w64-mingw32)
# The ones whose threads are those of the standard library.
set(CMAKE_C_COMPILER ${triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${triple}-g++-posix)
set(CMAKE_RC_COMPILER ${triple}-windres)
set(TALVORN_MESSAGE_COMPILER ${triple}-windmc CACHE STRING "Compiler of message tables")

set(CMAKE_FIND_ROOT_PATH /usr/${triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# What overruns a buffer ends the program. (This compiler knows no control-flow guard.)
set(CMAKE_CXX_FLAGS_INIT "-ffunction-sections -fdata-sections -fstack-protector-strong")
# The same sources give the same bytes: no time of the build. Then: for Windows 7 and later, at
# an address that is random within 64 bits, and without code on heap and stack.
foreach(kind EXE SHARED)
  string(CONCAT CMAKE_${kind}_LINKER_FLAGS_INIT
    "-static -static-libgcc -static-libstdc++ -Wl,--gc-sections -Wl,--no-insert-timestamp"
    " -Wl,--major-subsystem-version,6,--minor-subsystem-version,1"
    " -Wl,--major-os-version,6,--minor-os-version,1"
    " -Wl,--dynamicbase,--high-entropy-va,--nxcompat")
  set(CMAKE_${kind}_LINKER_FLAGS_RELEASE_INIT "-s")
endforeach()

# Tests run under Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/run_under_wine.sh)
