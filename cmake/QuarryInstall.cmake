# Install rules of libquarry.so, its headers, the CMake package and the pkg-config file. Other
# targets install next to where they are defined: library targets into the export set
# quarryTargets (namespace quarry::), tools into CMAKE_INSTALL_BINDIR. Everything installed is
# relocatable: the CMake package and the .pc files find their prefix from where they lie.
include(CMakePackageConfigHelpers)

install(TARGETS quarry EXPORT quarryTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/quarry DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT dev FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

set(QUARRY_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/quarry)
install(EXPORT quarryTargets NAMESPACE quarry:: DESTINATION ${QUARRY_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/quarryConfig.cmake.in
  ${PROJECT_BINARY_DIR}/quarryConfig.cmake INSTALL_DESTINATION ${QUARRY_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/quarryConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/quarryConfig.cmake ${PROJECT_BINARY_DIR}/quarryConfigVersion.cmake
  DESTINATION ${QUARRY_CMAKE_DIR} COMPONENT dev)

# quarry_install_pkgconfig(<template.pc.in>): configures a .pc template and installs it. The
# template sets `prefix=@QUARRY_PC_PREFIX@` (a path relative to ${pcfiledir}) and uses
# @CMAKE_INSTALL_INCLUDEDIR@, @CMAKE_INSTALL_LIBDIR@ and @PROJECT_VERSION@; see cmake/quarry.pc.in.
file(RELATIVE_PATH _quarry_pc_up /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" _quarry_pc_up "${_quarry_pc_up}")
set(QUARRY_PC_PREFIX "\${pcfiledir}/${_quarry_pc_up}")
function(quarry_install_pkgconfig template)
  get_filename_component(name ${template} NAME_WE)
  configure_file(${template} ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()
quarry_install_pkgconfig(${PROJECT_SOURCE_DIR}/cmake/quarry.pc.in)
