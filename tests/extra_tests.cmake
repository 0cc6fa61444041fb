# Link options of the dump and signal tests.

# dump_test makes chosen write(2) calls of a dump fail.
if(TARGET dump_test)
  target_link_options(dump_test PRIVATE -Wl,--wrap=write)
endif()

# dump_sigsafe_test counts every allocation, lock, stdio call and strerror that the library's
# objects make while a dump runs on the watched thread.
if(TARGET dump_sigsafe_test)
  set(QUARRY_SIGSAFE_WRAPPED
    malloc calloc realloc free aligned_alloc _Znwm
    pthread_mutex_lock pthread_mutex_trylock pthread_rwlock_rdlock pthread_rwlock_wrlock sem_wait
    fopen fwrite fputs puts printf fprintf snprintf vfprintf vsnprintf
    perror strerror strerror_r opendir)
  list(TRANSFORM QUARRY_SIGSAFE_WRAPPED PREPEND "-Wl,--wrap=")
  target_link_options(dump_sigsafe_test PRIVATE ${QUARRY_SIGSAFE_WRAPPED})
endif()

# The crash and dump-signal tests run record writers during dumps. Under ThreadSanitizer they
# read the suppression of the dump's intended unsynchronised ring read (see tsan.supp) through
# the test's __tsan_default_options, which works under ctest and when run directly alike.
if(TARGET crash_signals_test)
  target_compile_definitions(crash_signals_test PRIVATE
    QUARRY_TSAN_SUPPRESSIONS="${CMAKE_CURRENT_SOURCE_DIR}/tsan.supp")
endif()

# quarryctl_test runs the quarryctl command against a live demo_host, and reads control files
# through quarry_layout.
if(TARGET quarryctl_test AND TARGET quarry_layout)
  target_link_libraries(quarryctl_test PRIVATE quarry_layout)
  if(TARGET quarryctl AND TARGET demo_host)
    target_compile_definitions(quarryctl_test PRIVATE
      QUARRYCTL_PATH="$<TARGET_FILE:quarryctl>" DEMO_HOST_PATH="$<TARGET_FILE:demo_host>"
      DECODE_DIR="${PROJECT_SOURCE_DIR}/examples")
    add_dependencies(quarryctl_test quarryctl demo_host)
  endif()
endif()

# event_loop_test runs a real event loop on a thread of its own: kelp in the executable globbed
# above, and each event-loop adapter that was built in an executable of its own, from the same
# source (QUARRY_TEST_LOOP_<NAME> picks the loop; one kelp_attach_fd per process).
if(TARGET event_loop_test AND TARGET kelp)
  target_link_libraries(event_loop_test PRIVATE kelp)
  target_compile_definitions(event_loop_test PRIVATE QUARRY_TEST_LOOP_KELP
    QUARRY_TSAN_SUPPRESSIONS="${CMAKE_CURRENT_SOURCE_DIR}/tsan.supp")
endif()
foreach(adapter uv event sdevent glib)
  if(TARGET quarry::${adapter})
    add_executable(event_loop_${adapter}_test event_loop_test.cpp)
    target_link_libraries(event_loop_${adapter}_test
      PRIVATE quarry_test_support GTest::gtest_main quarry::${adapter})
    target_include_directories(event_loop_${adapter}_test PRIVATE ${PROJECT_SOURCE_DIR}/kelp/include)
    string(TOUPPER ${adapter} loop_name)
    target_compile_definitions(event_loop_${adapter}_test PRIVATE QUARRY_TEST_LOOP_${loop_name})
    gtest_discover_tests(event_loop_${adapter}_test TEST_PREFIX ${adapter}.
      DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120
      ENVIRONMENT "QUARRY_PATH=${QUARRY_TEST_PATH_ROOT}/event_loop_${adapter}_test/")
  endif()
endforeach()

# A bounded crash soak: 60 seeded runs (each signal ten times) of a host killed while its
# writers run; every trace file must decode with no damaged record beyond those in flight.
# The soak keeps its runs below its own temporary directory. A long run: see docs/security.md.
# Not under sanitizers: they take over the fault signals and exit instead of dying by them.
if(TARGET quarry-soak AND NOT QUARRY_SANITIZE)
  add_test(NAME crash_soak COMMAND quarry-soak --runs 60 --seed 1)
  set_tests_properties(crash_soak PROPERTIES TIMEOUT 600)
endif()
