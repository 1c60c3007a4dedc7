# Compiler options of all targets, and functions that define each kind of target.

add_library(tessaly_options INTERFACE)
if(MSVC)
  target_compile_options(tessaly_options INTERFACE /W4 /WX /permissive- /utf-8)
else()
  # Forbids fused multiply-adds. They round once instead of twice, but sample values must be the same in every build.
  target_compile_options(tessaly_options INTERFACE -Wall -Wextra -Wpedantic -Werror -ffp-contract=off)
endif()
if(WIN32)
  target_compile_definitions(
    tessaly_options INTERFACE NOMINMAX UNICODE _UNICODE _WIN32_WINNT=0x0601
                              WINVER=0x0601)
endif()
# Address space layout randomisation, non-executable data and stack protection make memory errors harder to exploit.
# MSVC enables stack protection and high-entropy addresses by default.
if(MSVC)
  target_link_options(tessaly_options INTERFACE /DYNAMICBASE /NXCOMPAT)
else()
  target_compile_options(tessaly_options INTERFACE -fstack-protector-strong)
  if(WIN32)
    target_link_options(tessaly_options INTERFACE -fstack-protector-strong -Wl,--dynamicbase
                                                  -Wl,--nxcompat)
    if(CMAKE_SIZEOF_VOID_P EQUAL 8)
      target_link_options(tessaly_options INTERFACE -Wl,--high-entropy-va)
    endif()
  endif()
endif()
if(TESSALY_SANITIZE_TRAP)
  # The mingw compilers have no sanitizer runtime, so undefined behaviour traps. The check of dynamic types (vptr) is
  # off, because it needs the runtime.
  target_compile_options(tessaly_options INTERFACE -fsanitize=undefined -fno-sanitize=vptr
                                                   -fsanitize-undefined-trap-on-error)
elseif(TESSALY_SANITIZE)
  target_compile_options(tessaly_options INTERFACE -fsanitize=${TESSALY_SANITIZE}
                                                   -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tessaly_options INTERFACE -fsanitize=${TESSALY_SANITIZE})
endif()
target_include_directories(tessaly_options INTERFACE ${CMAKE_SOURCE_DIR})

# tessaly_kernels(<folder> <sources...>): a library of plain C++ without COM, built on every platform.
function(tessaly_kernels folder)
  add_library(${folder}_kernels STATIC ${ARGN})
  target_link_libraries(${folder}_kernels PUBLIC tessaly_options)
endfunction()

# tessaly_avx2_sources(<sources...>): compiles kernels of this folder for AVX2 and FMA, which not every processor has.
# The sources must not define inline functions that other files use, because the linker may choose the AVX2 copy.
function(tessaly_avx2_sources)
  if(MSVC)
    set(options /arch:AVX2)
  else()
    set(options -mavx2 -mfma)
    if(MINGW)
      # GCC stores wide registers on the stack with aligned moves, but the Windows stack is not aligned for them.
      list(APPEND options -Wa,-muse-unaligned-vector-move)
    endif()
  endif()
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "${options}")
endfunction()

# tessaly_components(<folder> <sources...>): the COM classes of one folder, to link into a module.
function(tessaly_components folder)
  add_library(${folder}_components OBJECT ${ARGN})
  target_link_libraries(${folder}_components PUBLIC tessaly_options marlinda_contracts)
  add_dependencies(${folder}_components marlinda_contracts_files)
  if(TARGET ${folder}_kernels)
    target_link_libraries(${folder}_components PUBLIC ${folder}_kernels)
  endif()
endfunction()

# tessaly_module(<name> <description> <sources...>): <name>.dll in the folder of the programs.
function(tessaly_module name description)
  add_library(${name} SHARED ${ARGN})
  set_target_properties(${name} PROPERTIES PREFIX "" IMPORT_PREFIX "" RUNTIME_OUTPUT_DIRECTORY
                                                                      ${CMAKE_BINARY_DIR})
  tessaly_version_resource(${name} "${description}")
endfunction()
