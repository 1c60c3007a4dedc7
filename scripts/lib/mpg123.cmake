# Leaves almost nothing of libsyn123, which the engine does not use. Included by mpg123's own CMake files.
function(select_sources)
  get_target_property(sources libsyn123 SOURCES)
  list(FILTER sources INCLUDE REGEX "geiger")
  set_target_properties(libsyn123 PROPERTIES SOURCES "${sources}")
endfunction()
cmake_language(DEFER CALL select_sources)
