# The posix-threads variants are the ones that have std::thread and std::mutex.
set(CMAKE_C_COMPILER ${TESSALY_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TESSALY_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${TESSALY_MINGW_TRIPLET}-windres)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Nothing but system libraries: a host needs Tessaly.dll and no compiler runtime beside it.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
