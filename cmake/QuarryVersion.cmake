# Keeps the version macros of include/quarry/quarry.h equal to project(VERSION): the header must
# stay usable straight from the source tree, so it is checked here rather than generated.
set(_quarry_header ${PROJECT_SOURCE_DIR}/include/quarry/quarry.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_quarry_header})
file(STRINGS ${_quarry_header} _quarry_version_lines
  REGEX "^#define QUARRY_VERSION_(MAJOR|MINOR|PATCH) [0-9]+$")
set(_quarry_header_version "")
foreach(_part MAJOR MINOR PATCH)
  foreach(_line ${_quarry_version_lines})
    if(_line MATCHES "^#define QUARRY_VERSION_${_part} ([0-9]+)$")
      list(APPEND _quarry_header_version ${CMAKE_MATCH_1})
    endif()
  endforeach()
endforeach()
list(JOIN _quarry_header_version "." _quarry_header_version)
if(NOT _quarry_header_version STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "include/quarry/quarry.h says version '${_quarry_header_version}' but "
    "project(VERSION) is ${PROJECT_VERSION}: update QUARRY_VERSION_MAJOR/MINOR/PATCH")
endif()
