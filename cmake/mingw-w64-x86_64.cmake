# Cross-compiles Glyptora.dll and its tools for 64-bit Windows with Debian's mingw-w64 (posix
# thread model: package g++-mingw-w64-x86-64-posix). The C and C++ runtimes are linked
# statically, so the DLL and programs need nothing beside the system DLLs.
#
#   cmake -S . -B build/mingw -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
#
# When wine64 is installed, programs built here run through it (tests, generators).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(GLYPTORA_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${GLYPTORA_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${GLYPTORA_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${GLYPTORA_MINGW_PREFIX}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${GLYPTORA_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# printf and friends of the mingw runtime (C99 formats such as %zu and %lld on every Windows).
set(CMAKE_C_FLAGS_INIT "-D__USE_MINGW_ANSI_STDIO=1")
set(CMAKE_CXX_FLAGS_INIT "-D__USE_MINGW_ANSI_STDIO=1")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

find_program(GLYPTORA_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(GLYPTORA_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${GLYPTORA_WINE})
endif()
