# Cross toolchain for the Windows build: MinGW-w64 with POSIX threads (std::thread and friends).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(_prefix x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${_prefix}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_prefix}-g++-posix)
set(CMAKE_RC_COMPILER ${_prefix}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${_prefix})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test binaries run under Wine, through a wrapper that keeps a private prefix in the build tree.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run.sh)
