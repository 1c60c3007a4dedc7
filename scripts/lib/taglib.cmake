# Compiles TagLib's sources in few groups, which takes half the time. Included by TagLib's own CMake files.
function(group_sources)
  get_target_property(sources tag SOURCES)
  get_target_property(folder tag SOURCE_DIR)
  # These sources need their headers in an order of their own.
  list(REMOVE_ITEM sources mp4/mp4atom.cpp mpeg/mpegheader.cpp)
  foreach(source ${sources})
    get_filename_component(group ${source} DIRECTORY)
    # Names in these folders conflict with names in others.
    if(NOT group MATCHES "^(|mp4|mpeg|mpeg/id3v2|riff/wav|toolkit)$")
      set(group others)
    endif()
    string(MAKE_C_IDENTIFIER "${group}" group)
    set_property(SOURCE ${folder}/${source} TARGET_DIRECTORY tag PROPERTY UNITY_GROUP g${group})
  endforeach()
  set_target_properties(tag PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
endfunction()
cmake_language(DEFER CALL group_sources)
