# Compiles only FLAC's decoder. Included by FLAC's own CMake files.
function(select_sources)
  get_target_property(sources FLAC SOURCES)
  list(FILTER sources EXCLUDE REGEX "encoder|intrin|metadata|bitwriter|window")
  set_target_properties(FLAC PROPERTIES SOURCES "${sources}")
endfunction()
cmake_language(DEFER CALL select_sources)
