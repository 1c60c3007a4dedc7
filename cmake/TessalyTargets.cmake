# How every target of this project is compiled, and the kinds of target there are.

add_library(tessaly_options INTERFACE)
if(MSVC)
  target_compile_options(tessaly_options INTERFACE /W4 /WX /permissive- /utf-8)
else()
  # Contraction would let a compiler fuse a multiply and an add and so round once instead of twice;
  # sample values must be the same on every build.
  target_compile_options(tessaly_options INTERFACE -Wall -Wextra -Wpedantic -Werror -ffp-contract=off)
endif()
if(WIN32)
  target_compile_definitions(
    tessaly_options INTERFACE NOMINMAX UNICODE _UNICODE _WIN32_WINNT=0x0601
                              WINVER=0x0601)
endif()
# An attacker who gets past a bound in this code should find nothing where he expects it, and no stack
# to write over. The rest of the image flags are the linker's habit; a test holds the module to them.
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
  # There is no sanitizer runtime for Windows: what is undefined ends the program on the spot. The
  # check of dynamic types is the one that cannot do without a runtime.
  target_compile_options(tessaly_options INTERFACE -fsanitize=undefined -fno-sanitize=vptr
                                                   -fsanitize-undefined-trap-on-error)
elseif(TESSALY_SANITIZE)
  target_compile_options(tessaly_options INTERFACE -fsanitize=${TESSALY_SANITIZE}
                                                   -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tessaly_options INTERFACE -fsanitize=${TESSALY_SANITIZE})
endif()
target_include_directories(tessaly_options INTERFACE ${CMAKE_SOURCE_DIR})

# tessaly_kernels(<folder> <sources...>): plain C++, built on every platform, without COM.
function(tessaly_kernels folder)
  add_library(${folder}_kernels STATIC ${ARGN})
  target_link_libraries(${folder}_kernels PUBLIC tessaly_options)
endfunction()

# tessaly_avx2_sources(<sources...>): kernels of this folder that are compiled for AVX2 and FMA. They run
# only where the processor has both, so they must not define anything inline that other files use.
function(tessaly_avx2_sources)
  if(MSVC)
    set(options /arch:AVX2)
  else()
    set(options -mavx2 -mfma)
    if(MINGW)
      # This compiler believes the stack aligned for wide registers, which on Windows it is not.
      list(APPEND options -Wa,-muse-unaligned-vector-move)
    endif()
  endif()
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "${options}")
endfunction()

# tessaly_components(<folder> <sources...>): the COM classes of one folder, linked into the module.
function(tessaly_components folder)
  add_library(${folder}_components OBJECT ${ARGN})
  target_link_libraries(${folder}_components PUBLIC tessaly_options marlinda_contracts)
  add_dependencies(${folder}_components marlinda_contracts_files)
  if(TARGET ${folder}_kernels)
    target_link_libraries(${folder}_components PUBLIC ${folder}_kernels)
  endif()
endfunction()

# tessaly_module(<name> <description> <sources...>): <name>.dll, beside the programs.
function(tessaly_module name description)
  add_library(${name} SHARED ${ARGN})
  set_target_properties(${name} PROPERTIES PREFIX "" IMPORT_PREFIX "" RUNTIME_OUTPUT_DIRECTORY
                                                                      ${CMAKE_BINARY_DIR})
  tessaly_version_resource(${name} "${description}")
endfunction()
