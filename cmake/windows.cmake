# Toolchain file: 64-bit Windows, from Linux, by mingw-w64's GCC with POSIX threads. What is built
# runs under Wine, if there is one.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix) # of GoogleTest, and of zlib
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH) # an installed mempager can lie anywhere

find_program(MEMPAGER_WINE NAMES wine64 PATHS /usr/lib/wine)
if(MEMPAGER_WINE)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${MEMPAGER_WINE})
endif()
