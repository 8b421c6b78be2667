# Cross-builds libkym for 64-bit Windows with Debian's mingw-w64 (the posix
# thread model, which C++17's threads need). The libraries it links come from
# the prefix that scripts/windows-deps.sh builds: pass it as KYM_WINDOWS_DEPS
# (a cache or an environment variable). Programs built here run under wine
# when CTest or a test discovery starts them.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(KYM_MINGW_HOST x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${KYM_MINGW_HOST}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KYM_MINGW_HOST}-g++-posix)
set(CMAKE_RC_COMPILER ${KYM_MINGW_HOST}-windres)

if(NOT KYM_WINDOWS_DEPS AND DEFINED ENV{KYM_WINDOWS_DEPS})
  set(KYM_WINDOWS_DEPS "$ENV{KYM_WINDOWS_DEPS}")
endif()
# Checks that compile a test program read this file again; hand the prefix on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KYM_WINDOWS_DEPS)

set(CMAKE_FIND_ROOT_PATH /usr/${KYM_MINGW_HOST} ${KYM_WINDOWS_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(KYM_WINE NAMES wine)
if(KYM_WINE AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KYM_WINE})
endif()
