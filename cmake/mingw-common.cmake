# Only the posix-threads variants of the compilers have std::thread and std::mutex.
set(CMAKE_C_COMPILER ${TESSALY_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TESSALY_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${TESSALY_MINGW_TRIPLET}-windres)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Links statically, so that a host needs no DLLs of the compiler's runtime.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
