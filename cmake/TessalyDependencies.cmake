# Finds the libraries of scripts/build-dependencies. TESSALY_DEPS has a folder for each target: native, x64 and x86.
if(NOT WIN32)
  set(dependencies_target native)
elseif(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(dependencies_target x64)
else()
  set(dependencies_target x86)
endif()

# tessaly_find_package(<name>): calls find_package. Without MSVC, searches only the target's folder, so that no other
# build of the library is used. This is a macro, because find_package sets variables of its caller.
macro(tessaly_find_package name)
  if(MSVC)
    find_package(${name} CONFIG QUIET GLOBAL) # vcpkg.json lists the libraries
  else()
    find_package(${name} CONFIG QUIET GLOBAL PATHS ${TESSALY_DEPS}/${dependencies_target}
                 NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  endif()
  if(NOT ${name}_FOUND)
    message(FATAL_ERROR "${name} is not in ${TESSALY_DEPS}/${dependencies_target}. "
                        "Run scripts/build-dependencies first.")
  endif()
endmacro()

# tessaly_find_library(<target> <library> <header>): finds a library that has no CMake package. Native builds use the
# system's library.
macro(tessaly_find_library target library header)
  if(MSVC OR NOT WIN32)
    find_library(${library}_LIBRARY ${library} REQUIRED) # with MSVC, the library from vcpkg
    find_path(${library}_INCLUDE_DIR ${header} REQUIRED)
  else()
    set(${library}_LIBRARY ${TESSALY_DEPS}/${dependencies_target}/lib/lib${library}.a)
    set(${library}_INCLUDE_DIR ${TESSALY_DEPS}/${dependencies_target}/include)
    if(NOT EXISTS ${${library}_LIBRARY})
      message(FATAL_ERROR "${${library}_LIBRARY} is missing. Run scripts/build-dependencies first.")
    endif()
  endif()
  add_library(${target} UNKNOWN IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES IMPORTED_LOCATION ${${library}_LIBRARY}
                                             INTERFACE_INCLUDE_DIRECTORIES ${${library}_INCLUDE_DIR})
endmacro()
