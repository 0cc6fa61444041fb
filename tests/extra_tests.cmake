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

# A bounded crash soak: 60 seeded runs (each signal ten times) of a host killed while its
# writers run; every trace file must decode with no damaged record beyond those in flight.
# The soak keeps its runs below its own temporary directory. A long run: see docs/security.md.
# Not under sanitizers: they take over the fault signals and exit instead of dying by them.
if(TARGET quarry-soak AND NOT QUARRY_SANITIZE)
  add_test(NAME crash_soak COMMAND quarry-soak --runs 60 --seed 1)
  set_tests_properties(crash_soak PROPERTIES TIMEOUT 600)
endif()
