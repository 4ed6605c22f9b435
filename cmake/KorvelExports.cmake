# The list of functions that leave the shared library lives in one place, the linker
# version script src/korvel.map. The module definition file of Windows links is made from
# it, and the export test compares both kinds of library with it.

# Every name in the global section of the version script `map`, sorted.
function(korvel_exported_names map out)
  file(READ ${map} text)
  string(REGEX REPLACE "/\\*([^*]|\\*+[^*/])*\\*+/" "" text "${text}")  # comments
  if(NOT text MATCHES "global:([^}]*)local:")
    message(FATAL_ERROR "${map}: no global section")
  endif()
  string(REGEX MATCHALL "[A-Za-z_][A-Za-z0-9_]*" names "${CMAKE_MATCH_1}")
  list(SORT names)
  set(${out} ${names} PARENT_SCOPE)
endfunction()

# Writes the module definition file `def` for korvel.dll from `map`; editing the map makes
# CMake write it again.
function(korvel_write_def_file map def)
  korvel_exported_names(${map} names)
  list(JOIN names "\n  " exports)
  file(CONFIGURE OUTPUT ${def} CONTENT "LIBRARY korvel.dll\nEXPORTS\n  ${exports}\n" @ONLY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${map})
endfunction()
