# Run by the `docs` target (cmake -DZEL_DOCS_OUTPUT=<build>/docs -P): finds
# doxygen now, at build time, and generates <build>/docs/html afresh from the
# Doxyfile written at configure time.
find_program(ZEL_DOXYGEN doxygen)
if(NOT ZEL_DOXYGEN)
  message(FATAL_ERROR "The docs target needs doxygen, which is not installed. "
    "Install it (apt-get install doxygen), then build the target again: "
    "cmake --build <build directory> --target docs")
endif()
file(REMOVE_RECURSE "${ZEL_DOCS_OUTPUT}/html")
execute_process(COMMAND "${ZEL_DOXYGEN}" "${ZEL_DOCS_OUTPUT}/Doxyfile"
  WORKING_DIRECTORY "${ZEL_DOCS_OUTPUT}" RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  file(REMOVE_RECURSE "${ZEL_DOCS_OUTPUT}/html")
  message(FATAL_ERROR "doxygen failed (any warning fails the docs target)")
endif()
