# kolmo_ring(NAME SOURCES ... HEADERS ... USES ...): one folder of the source tree as a static library.
# HEADERS are the folder's public contracts, the ones that are installed; INCLUDED are files that they include
# and nobody else; USES are the rings and the libraries that callers need too.
function(kolmo_ring name)
  cmake_parse_arguments(RING "" "" "SOURCES;HEADERS;INCLUDED;USES" ${ARGN})
  add_library(${name} STATIC ${RING_SOURCES})
  target_sources(${name}
    PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${RING_HEADERS}
    PUBLIC FILE_SET included TYPE HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${RING_INCLUDED})
  # Where it is asked for, each of the first is compiled on its own.
  set_target_properties(${name} PROPERTIES INTERFACE_HEADER_SETS_TO_VERIFY HEADERS)
  target_link_libraries(${name} PUBLIC ${RING_USES} PRIVATE
    $<BUILD_INTERFACE:kolmo_warnings> $<BUILD_INTERFACE:kolmo_build>)
  target_compile_features(${name} PUBLIC cxx_std_20)
endfunction()
