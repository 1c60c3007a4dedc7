# The libraries that scripts/build-dependencies builds: one folder below TESSALY_DEPS per target.
if(NOT WIN32)
  set(dependencies_target native)
elseif(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(dependencies_target x64)
else()
  set(dependencies_target x86)
endif()

# tessaly_find_package(<name>): find_package among those libraries and nowhere else, so that no
# other build of a library slips in. A macro, because find_package sets variables for its caller.
macro(tessaly_find_package name)
  if(MSVC)
    find_package(${name} CONFIG QUIET GLOBAL) # vcpkg's, by vcpkg.json
  else()
    find_package(${name} CONFIG QUIET GLOBAL PATHS ${TESSALY_DEPS}/${dependencies_target}
                 NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  endif()
  if(NOT ${name}_FOUND)
    message(FATAL_ERROR "${name} is not in ${TESSALY_DEPS}/${dependencies_target}. "
                        "Run scripts/build-dependencies first.")
  endif()
endmacro()

# TagLib 1 brings no CMake package. The machine's own kernels take the system's library.
macro(tessaly_find_taglib)
  if(MSVC OR NOT WIN32)
    find_library(TAGLIB_LIBRARY tag REQUIRED) # with MSVC vcpkg's, by vcpkg.json
    find_path(TAGLIB_INCLUDE_DIR taglib/tag.h REQUIRED)
  else()
    set(TAGLIB_LIBRARY ${TESSALY_DEPS}/${dependencies_target}/lib/libtag.a)
    set(TAGLIB_INCLUDE_DIR ${TESSALY_DEPS}/${dependencies_target}/include)
    if(NOT EXISTS ${TAGLIB_LIBRARY})
      message(FATAL_ERROR "${TAGLIB_LIBRARY} is missing. Run scripts/build-dependencies first.")
    endif()
  endif()
  add_library(TagLib::tag UNKNOWN IMPORTED GLOBAL)
  set_target_properties(
    TagLib::tag
    PROPERTIES IMPORTED_LOCATION ${TAGLIB_LIBRARY}
               INTERFACE_INCLUDE_DIRECTORIES ${TAGLIB_INCLUDE_DIR}
               INTERFACE_COMPILE_DEFINITIONS "$<$<BOOL:${WIN32}>:TAGLIB_STATIC>")
endmacro()
