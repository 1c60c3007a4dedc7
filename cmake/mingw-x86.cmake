# Cross-compiles for 32-bit Windows on Linux. Use through the preset: cmake --preset x86
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)
set(TESSALY_MINGW_TRIPLET i686-w64-mingw32)
# Uses SSE2 instead of the x87 unit, which is slow and computes with extra precision.
set(CMAKE_C_FLAGS_INIT "-msse2 -mfpmath=sse")
set(CMAKE_CXX_FLAGS_INIT "-msse2 -mfpmath=sse")
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
# COM looks up the exports by undecorated names, but the compiler decorates stdcall functions.
string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,--enable-stdcall-fixup")
