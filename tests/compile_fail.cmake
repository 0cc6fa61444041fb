# Runs one compile-fail case: compiles SOURCE with -DCASE_<CASE> and expects failure with a
# diagnostic matching EXPECT, or, for CASE OK, success.
# Usage: cmake -DCOMPILER=<cc> -DSTD=<-std=...> -DSOURCE=<file> -DCASE=<name> -DEXPECT=<regex>
#              -DINCLUDES=<dir;dir> -P compile_fail.cmake
set(args ${STD} -fsyntax-only -Wall -Wextra -Wpedantic -Werror -DCASE_${CASE})
foreach(dir ${INCLUDES})
  list(APPEND args -I${dir})
endforeach()
execute_process(COMMAND ${COMPILER} ${args} ${SOURCE} RESULT_VARIABLE rc OUTPUT_VARIABLE out
                ERROR_VARIABLE out)
if(CASE STREQUAL "OK")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "the control case does not compile:\n${out}")
  endif()
elseif(rc EQUAL 0)
  message(FATAL_ERROR "case ${CASE} compiled, but must not")
elseif(NOT out MATCHES "${EXPECT}")
  message(FATAL_ERROR "case ${CASE} failed without a diagnostic matching \"${EXPECT}\":\n${out}")
endif()
