# Cross-builds the library and its tools for 64-bit Windows on Debian:
#   cmake -S . -B build-win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake
# The posix flavour of the compiler, for std::thread and std::mutex.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(ZEL_MINGW_PREFIX x86_64-w64-mingw32)

set(CMAKE_C_COMPILER ${ZEL_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZEL_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${ZEL_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${ZEL_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
