# Generates header, identifiers and type library from core/marlinda.idl, and header and identifiers from
# core/converter.idl.
set(contracts_dir ${CMAKE_BINARY_DIR}/contracts)
file(MAKE_DIRECTORY ${contracts_dir})
if(MSVC)
  # midl generates all files of an IDL file in one run.
  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(midl_target x64)
  else()
    set(midl_target win32)
  endif()
  foreach(contract marlinda converter)
    set(idl ${CMAKE_SOURCE_DIR}/core/${contract}.idl)
    set(library)
    if(contract STREQUAL marlinda)
      set(library ${contract}.tlb)
    endif()
    list(TRANSFORM library PREPEND ${contracts_dir}/ OUTPUT_VARIABLE library_path)
    add_custom_command(
      OUTPUT ${contracts_dir}/${contract}.h ${contracts_dir}/${contract}_i.c ${library_path}
      COMMAND midl /nologo /env ${midl_target} /out ${contracts_dir} /h ${contract}.h
              /iid ${contract}_i.c /tlb ${contract}.tlb /proxy ${contract}_p.c
              /dlldata ${contract}_dlldata.c ${idl}
      DEPENDS ${idl}
      COMMENT "Generating the contracts of ${contract}"
      VERBATIM)
  endforeach()
else()
  # On Debian, the PATH has a program named widl only if Wine's wrapper scripts are installed.
  find_program(WIDL_EXECUTABLE NAMES widl widl-stable PATHS /usr/lib/wine REQUIRED)
  find_path(WINE_IDL_DIR oaidl.idl PATHS /usr/include/wine/wine/windows /usr/include/wine/windows
            NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  find_path(WINE_TLB_DIR stdole2.tlb
            PATHS /usr/lib/x86_64-linux-gnu/wine/x86_64-windows /usr/lib/wine/x86_64-windows
            NO_CMAKE_FIND_ROOT_PATH REQUIRED)

  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(widl_target -m64)
  else()
    set(widl_target -m32)
  endif()

  foreach(product "marlinda;-h;marlinda.h" "marlinda;-u;marlinda_i.c" "marlinda;-t;marlinda.tlb"
                  "converter;-h;converter.h" "converter;-u;converter_i.c")
    list(GET product 0 contract)
    list(GET product 1 flag)
    list(GET product 2 name)
    set(idl ${CMAKE_SOURCE_DIR}/core/${contract}.idl)
    add_custom_command(
      OUTPUT ${contracts_dir}/${name}
      COMMAND ${WIDL_EXECUTABLE} ${widl_target} ${flag} -o ${contracts_dir}/${name} -I${WINE_IDL_DIR}
              -L${WINE_TLB_DIR} ${idl}
      DEPENDS ${idl}
      COMMENT "Generating ${name}"
      VERBATIM)
  endforeach()
endif()

add_custom_target(marlinda_contracts_files DEPENDS ${contracts_dir}/marlinda.h
                                                   ${contracts_dir}/marlinda.tlb
                                                   ${contracts_dir}/converter.h)
add_library(marlinda_identifiers STATIC ${contracts_dir}/marlinda_i.c
                                        ${contracts_dir}/converter_i.c)
add_library(marlinda_contracts INTERFACE)
target_include_directories(marlinda_contracts SYSTEM INTERFACE ${contracts_dir})
target_link_libraries(marlinda_contracts INTERFACE marlinda_identifiers oleaut32 ole32 uuid advapi32)
# Cached, because the folder that embeds the type library does not see variables of this scope.
set(MARLINDA_TYPE_LIBRARY ${contracts_dir}/marlinda.tlb CACHE INTERNAL "The type library")
