# Cross-builds zorv.dll and its tests for 64-bit Windows with Debian's
# mingw-w64 (posix threading variant: std::thread and std::mutex need it).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZORV_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZORV_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZORV_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${ZORV_MINGW_PREFIX}-windres)

# Windows 7 is the oldest system with FSCTL_REQUEST_OPLOCK.
add_compile_definitions(_WIN32_WINNT=0x0601 WINVER=0x0601 UNICODE _UNICODE)

# Self-contained binaries: no libstdc++/libgcc/winpthread DLLs to ship or to
# find under Wine.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

# ZORV_WIN_DEPS: the folder scripts/windows-deps.sh prints, holding SQLite
# and cJSON built for Windows.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZORV_WIN_DEPS)
set(CMAKE_FIND_ROOT_PATH /usr/${ZORV_MINGW_PREFIX} ${ZORV_WIN_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Tests run under Wine.
find_program(ZORV_WINE NAMES wine64 wine PATHS /usr/lib/wine /usr/bin NO_CMAKE_FIND_ROOT_PATH)
if(ZORV_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZORV_WINE})
endif()
