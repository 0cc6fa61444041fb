# Man pages: every man/<page>.<section>.scd becomes man/<page>.<section> in the build tree when
# scdoc is found, as part of the default build, and is installed under share/man/man<section>.
# Without scdoc the pages are skipped with a message; nothing else depends on them.
file(GLOB QUARRY_MAN_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.scd)
find_program(QUARRY_SCDOC scdoc)
if(QUARRY_MAN_SOURCES AND NOT QUARRY_SCDOC)
  message(STATUS "scdoc not found: man pages are not built (apt-get install scdoc)")
elseif(QUARRY_MAN_SOURCES)
  set(_quarry_man_pages "")
  foreach(source ${QUARRY_MAN_SOURCES})
    get_filename_component(page ${source} NAME_WLE)  # quarry-decode.1
    string(REGEX MATCH "[0-9]$" section ${page})
    set(output ${PROJECT_BINARY_DIR}/man/${page})
    add_custom_command(OUTPUT ${output}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
      COMMAND sh -c "\"$0\" < \"$1\" > \"$2\"" ${QUARRY_SCDOC} ${source} ${output}
      DEPENDS ${source} VERBATIM)
    list(APPEND _quarry_man_pages ${output})
    if(QUARRY_INSTALL)
      install(FILES ${output} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT doc)
    endif()
  endforeach()
  add_custom_target(quarry_man_pages ALL DEPENDS ${_quarry_man_pages})
endif()
