# Cross-builds for Windows x64 with Debian's MinGW-w64 (posix threads variant). Programs and
# libraries carry their C and C++ runtimes statically, so a test binary needs only the DLLs it
# builds itself.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(MC_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${MC_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${MC_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${MC_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${MC_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(MC_MINGW_STATIC_RUNTIME "-static -static-libgcc -static-libstdc++")
set(CMAKE_EXE_LINKER_FLAGS_INIT ${MC_MINGW_STATIC_RUNTIME})
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${MC_MINGW_STATIC_RUNTIME})
set(CMAKE_MODULE_LINKER_FLAGS_INIT ${MC_MINGW_STATIC_RUNTIME})
