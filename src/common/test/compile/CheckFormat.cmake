# cmake -DCXX=<compiler> -DSOURCE=<file> -DINCLUDES=<dir;dir> -P CheckFormat.cmake
#
# Compiles SOURCE twice with printf format warnings as errors: as it is (must
# succeed) and with ZEL_BAD_FORMAT defined (must fail, and the compiler must
# name the format as the reason). Any other outcome fails the test.
set(flags -std=c++17 -fsyntax-only -Wformat -Werror=format)
foreach(dir ${INCLUDES})
  list(APPEND flags -I${dir})
endforeach()
execute_process(COMMAND ${CXX} ${flags} ${SOURCE} RESULT_VARIABLE good OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT good EQUAL 0)
  message(FATAL_ERROR "well-formed records did not compile:\n${out}")
endif()
execute_process(COMMAND ${CXX} ${flags} -DZEL_BAD_FORMAT ${SOURCE} RESULT_VARIABLE bad OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(bad EQUAL 0)
  message(FATAL_ERROR "a format that does not match its arguments compiled")
endif()
if(NOT out MATCHES "Werror=format")
  message(FATAL_ERROR "the bad record failed for another reason than its format:\n${out}")
endif()
string(REGEX MATCHALL "Werror=format" hits "${out}")
list(LENGTH hits count)
if(NOT count EQUAL 2)
  message(FATAL_ERROR "expected 2 format errors (ZEL_LOG_ERROR, ZEL_DEBUG), got ${count}:\n${out}")
endif()
message(STATUS "format checks: good records compile, ${count} bad ones are rejected")
