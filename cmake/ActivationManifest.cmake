# tessaly_activation_manifest(<target>): lets the program <target> create the modules' classes without registration.
# Writes <target>.exe.manifest into the program's folder, which must also hold Tessaly.dll, Converter.dll to convert
# formats, and Mp3Encoder.dll to write MP3 files. The class identifiers come from the IDL files, which are in core/ of
# the sources and in include/ of the package.
function(tessaly_activation_manifest target)
  set(idl ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../core/marlinda.idl)
  if(NOT EXISTS ${idl})
    set(idl ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../../../include/marlinda.idl)
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${idl})
  file(READ ${idl} text)
  # Replaces brackets and semicolons, because both have a meaning in CMake lists.
  string(REPLACE "[" "<" text "${text}")
  string(REPLACE "]" ">" text "${text}")
  string(REPLACE ";" "," text "${text}")
  set(blank "[ \t\r\n]*")
  set(attributes "uuid\\(([-0-9A-Fa-f]+)\\)[^>]*>${blank}")

  string(REGEX MATCH "${attributes}library[ \t\r\n]" library "${text}")
  set(library_id ${CMAKE_MATCH_1})
  if(NOT library_id)
    message(FATAL_ERROR "No library found in ${idl}")
  endif()

  # Calls from another apartment need proxies. COM uses the type library to make the proxies of the listed interfaces.
  set(proxies)
  string(REGEX MATCHALL "<[^<>]*>${blank}interface[ \t\r\n]+[A-Za-z0-9_]+" interfaces "${text}")
  foreach(interface IN LISTS interfaces)
    if(interface MATCHES "oleautomation"
       AND interface MATCHES "${attributes}interface[ \t\r\n]+([A-Za-z0-9_]+)$")
      string(APPEND proxies "  <comInterfaceExternalProxyStub name=\"${CMAKE_MATCH_2}\""
                            " iid=\"{${CMAKE_MATCH_1}}\" tlbid=\"{${library_id}}\"\n"
                            "    proxyStubClsid32=\"{00020424-0000-0000-C000-000000000046}\"/>\n")
    endif()
  endforeach()

  set(classes)
  string(REGEX MATCHALL "${attributes}coclass[ \t\r\n]+[A-Za-z0-9_]+" coclasses "${text}")
  string(REGEX MATCHALL "[ \t\r\n]coclass[ \t\r\n]" expected "${text}")
  list(LENGTH coclasses found_count)
  list(LENGTH expected expected_count)
  if(found_count EQUAL 0 OR NOT found_count EQUAL expected_count)
    message(FATAL_ERROR "Only ${found_count} of ${expected_count} classes could be parsed in ${idl}")
  endif()
  foreach(coclass IN LISTS coclasses)
    string(REGEX MATCH "${attributes}coclass[ \t\r\n]+C([A-Za-z0-9_]+)$" matched "${coclass}")
    set(clsid ${CMAKE_MATCH_1})
    set(name ${CMAKE_MATCH_2})
    string(
      APPEND classes
      "    <comClass clsid=\"{${clsid}}\" tlbid=\"{${library_id}}\" threadingModel=\"Apartment\"\n"
      "      progid=\"Marlinda.${name}.1\" description=\"C${name} Object\">\n"
      "      <progid>Marlinda.${name}</progid>\n"
      "    </comClass>\n")
  endforeach()

  # The format converter and the MP3 encoder are in other modules.
  cmake_path(GET idl PARENT_PATH folder)
  set(converter_idl ${folder}/converter.idl)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${converter_idl})
  file(READ ${converter_idl} text)
  foreach(name CFormatConverter CMp3Encoder)
    if(NOT text MATCHES "uuid\\(([-0-9A-Fa-f]+)\\)${blank}.${blank}coclass[ \t\r\n]+${name}")
      message(FATAL_ERROR "${name} not found in ${converter_idl}")
    endif()
    set(${name}_id ${CMAKE_MATCH_1})
  endforeach()

  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(architecture amd64)
  else()
    set(architecture x86)
  endif()
  get_target_property(folder ${target} RUNTIME_OUTPUT_DIRECTORY)
  if(NOT folder)
    set(folder ${CMAKE_CURRENT_BINARY_DIR})
  endif()
  file(
    CONFIGURE
    OUTPUT ${folder}/${target}.exe.manifest
    CONTENT
      [[<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<assembly xmlns="urn:schemas-microsoft-com:asm.v1" manifestVersion="1.0">
  <assemblyIdentity type="win32" name="Tessaly.@target@" version="@Tessaly_VERSION@.0"
    processorArchitecture="@architecture@"/>
  <file name="Tessaly.dll">
    <typelib tlbid="{@library_id@}" version="1.0" resourceid="1" helpdir=""/>
@classes@  </file>
  <file name="Converter.dll">
    <comClass clsid="{@CFormatConverter_id@}" threadingModel="Both" description="CFormatConverter Object"/>
  </file>
  <file name="Mp3Encoder.dll">
    <comClass clsid="{@CMp3Encoder_id@}" threadingModel="Both" description="CMp3Encoder Object"/>
  </file>
@proxies@</assembly>
]]
    @ONLY)
endfunction()
