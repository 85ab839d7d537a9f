# Cross-compiles for 64-bit Windows with the MinGW-w64 POSIX-thread compilers.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(SWL_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER   ${SWL_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${SWL_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER  ${SWL_MINGW_PREFIX}-windres)
set(CMAKE_OBJDUMP      ${SWL_MINGW_PREFIX}-objdump)
set(CMAKE_NM           ${SWL_MINGW_PREFIX}-nm)
set(CMAKE_OBJCOPY      ${SWL_MINGW_PREFIX}-objcopy)

set(CMAKE_FIND_ROOT_PATH /usr/${SWL_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Test programs run under Wine; the wrapper picks the prefix from WINEPREFIX.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../tools/wine-run.sh)
