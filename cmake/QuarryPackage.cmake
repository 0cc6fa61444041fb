# `cpack -G DEB` (run in the build tree) makes one package, quarry_<version>_<arch>.deb, with
# everything `cmake --install` puts under /usr: the library, headers, kelp, the CMake package,
# quarry.pc, the tools and the man pages. One package rather than a libquarry1/-dev split keeps
# a single artifact to test; its run-time dependencies come from dpkg-shlibdeps.
set(CPACK_PACKAGE_NAME quarry)
set(CPACK_PACKAGE_VENDOR "quarry")
set(CPACK_PACKAGE_CONTACT "quarry maintainers <quarry@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "in-process flight recorder for Linux: lock-free trace buffers dumped on demand and on crashes")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
find_program(QUARRY_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(QUARRY_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  message(STATUS "dpkg-shlibdeps not found: a .deb made here lists no dependencies (apt-get install dpkg-dev)")
endif()
include(CPack)
