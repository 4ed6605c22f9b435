# Checks the layering of the sources: run as `cmake -DKORVEL_SOURCE_DIR=<root> -P KorvelLayers.cmake`.
#
# Every #include "dir/..." line of a file in src/<layer>/ must name a layer at or below its
# own; the program in tools/ may include only the public header and its own files. The order,
# lowest first (layers on one line share a rank and may include each other):
#
#   platform
#   frame
#   storage
#   convert          conversion rules and value coding of rules, the formula language
#   channel group    channel and group handles, value decoding and encoding, records
#   sort dump
#   library          the library's initialisation, wiring the layers' hooks together
#
# Fails with a list of every offending line.
if(NOT KORVEL_SOURCE_DIR)
  message(FATAL_ERROR "KORVEL_SOURCE_DIR is not set")
endif()

set(_rank_platform 1)
set(_rank_frame 2)
set(_rank_storage 3)
set(_rank_convert 4)
set(_rank_channel 5)
set(_rank_group 5)
set(_rank_sort 6)
set(_rank_dump 6)
set(_rank_library 7)

set(_violations "")
file(GLOB_RECURSE _files RELATIVE ${KORVEL_SOURCE_DIR}
     ${KORVEL_SOURCE_DIR}/src/*.h ${KORVEL_SOURCE_DIR}/src/*.cpp
     ${KORVEL_SOURCE_DIR}/tools/*.h ${KORVEL_SOURCE_DIR}/tools/*.cpp)
list(SORT _files)
foreach(_file ${_files})
  file(STRINGS ${KORVEL_SOURCE_DIR}/${_file} _includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  if(_file MATCHES "^tools/")
    foreach(_line ${_includes})
      # The program sees the library only through its public header.
      if(_line MATCHES "\"([^\"]*/[^\"]*)\"")
        list(APPEND _violations "${_file}: ${_line}")
      endif()
    endforeach()
    continue()
  endif()
  string(REGEX MATCH "^src/([^/]+)/" _ignored ${_file})
  set(_layer ${CMAKE_MATCH_1})
  if(NOT _layer)
    continue()
  endif()
  if(NOT DEFINED _rank_${_layer})
    list(APPEND _violations "${_file}: directory src/${_layer} has no place in the layer order")
    continue()
  endif()
  foreach(_line ${_includes})
    if(NOT _line MATCHES "\"([^\"/]+)/[^\"]*\"")
      continue()  # korvel.h and other headers without a directory
    endif()
    set(_target ${CMAKE_MATCH_1})
    if(NOT DEFINED _rank_${_target})
      list(APPEND _violations "${_file}: ${_line} (unknown layer ${_target})")
    elseif(_rank_${_target} GREATER _rank_${_layer})
      list(APPEND _violations "${_file}: ${_line} (${_layer} may not include ${_target})")
    endif()
  endforeach()
endforeach()

if(_violations)
  list(JOIN _violations "\n  " _text)
  message(FATAL_ERROR "Layer violations:\n  ${_text}")
endif()
list(LENGTH _files _count)
message(STATUS "Layers respected in ${_count} files")
