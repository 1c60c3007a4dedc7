# Cross-compiles the 32-bit module on Linux. Use through the preset: cmake --preset x86
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)
set(TESSALY_MINGW_TRIPLET i686-w64-mingw32)
# Avoids the x87 unit, which is slow and keeps extra precision. All processors since 2003 have SSE2.
set(CMAKE_C_FLAGS_INIT "-msse2 -mfpmath=sse")
set(CMAKE_CXX_FLAGS_INIT "-msse2 -mfpmath=sse")
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
# COM looks up the exports by their undecorated names.
string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,--enable-stdcall-fixup")
