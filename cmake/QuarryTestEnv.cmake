# quarry_private_test_paths(): at the end of the calling directory, gives every test added there
# with add_test a private QUARRY_PATH inside the build tree, unless the test sets its own, so no
# test writes to the default trace directory by accident. Tests found by gtest_discover_tests get
# theirs through the PROPERTIES of that call (tests/CMakeLists.txt); tests/ctest_isolated.sh
# exports one more for the whole run as a backstop.
function(quarry_private_test_paths)
  cmake_language(DEFER CALL _quarry_private_test_paths_now)
endfunction()
function(_quarry_private_test_paths_now)
  get_property(tests DIRECTORY PROPERTY TESTS)
  foreach(test ${tests})
    get_test_property(${test} ENVIRONMENT environment)
    if(NOT environment MATCHES "(^|;)QUARRY_PATH=")
      set_property(TEST ${test} APPEND PROPERTY ENVIRONMENT
        "QUARRY_PATH=${PROJECT_BINARY_DIR}/tests/quarry_path/${test}/")
    endif()
  endforeach()
endfunction()
