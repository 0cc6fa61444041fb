# ABI baseline of libquarry.so: abi/libquarry.abi is the abidw description of the released
# interface (only types of the public headers). `cmake --build build --target abi-baseline`
# (or `make abi-baseline`) rewrites it from the library just built; do that, review the diff and
# commit it whenever exports are added on purpose. The abi_compatible test compares the built
# library with it (tests/check_abi.sh says which differences fail).
find_program(QUARRY_ABIDW abidw)
set(QUARRY_ABI_BASELINE ${PROJECT_SOURCE_DIR}/abi/libquarry.abi)
if(QUARRY_ABIDW)
  add_custom_target(abi-baseline
    COMMAND ${QUARRY_ABIDW} --headers-dir ${PROJECT_SOURCE_DIR}/include/quarry --no-corpus-path
            --no-comp-dir-path --out-file ${QUARRY_ABI_BASELINE} $<TARGET_FILE:quarry>
    DEPENDS quarry VERBATIM
    COMMENT "Writing abi/libquarry.abi from the built libquarry.so")
endif()
# Only meaningful for a plain build with debug information (RelWithDebInfo, Debug).
if(QUARRY_BUILD_TESTS AND NOT QUARRY_SANITIZE)
  add_test(NAME abi_compatible
    COMMAND bash ${PROJECT_SOURCE_DIR}/tests/check_abi.sh ${QUARRY_ABI_BASELINE}
            $<TARGET_FILE:quarry> ${PROJECT_SOURCE_DIR}/include/quarry)
  set_tests_properties(abi_compatible PROPERTIES SKIP_RETURN_CODE 77)
endif()
