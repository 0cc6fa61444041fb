# The linker version script of libquarry.so, generated at configure time from
# tests/exported_symbols.txt (the one list of exported names; the exported_symbols test holds the
# built library to it). Every name gets the version node QUARRY_1.0 and everything else is local,
# so a name missing from the list is not exported at all, whatever its visibility attribute.
set(_quarry_exports_file ${PROJECT_SOURCE_DIR}/tests/exported_symbols.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_quarry_exports_file})
file(STRINGS ${_quarry_exports_file} _quarry_exports REGEX "^[A-Za-z_][A-Za-z0-9_]*$")
list(SORT _quarry_exports)
list(REMOVE_DUPLICATES _quarry_exports)
list(JOIN _quarry_exports ";\n    " _quarry_exports_body)
set(QUARRY_VERSION_SCRIPT ${PROJECT_BINARY_DIR}/quarry.map)
file(CONFIGURE OUTPUT ${QUARRY_VERSION_SCRIPT} @ONLY CONTENT
  "/* Generated from tests/exported_symbols.txt; do not edit. */\nQUARRY_${PROJECT_VERSION_MAJOR}.0 {\n  global:\n    ${_quarry_exports_body};\n  local:\n    *;\n};\n")
target_link_options(quarry PRIVATE -Wl,--version-script=${QUARRY_VERSION_SCRIPT})
set_property(TARGET quarry APPEND PROPERTY LINK_DEPENDS ${QUARRY_VERSION_SCRIPT})
