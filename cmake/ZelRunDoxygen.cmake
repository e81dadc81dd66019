# Run by the `docs` target (cmake -DZEL_DOCS_OUTPUT=<build>/docs
# -DZEL_HEADERS="<header>;..." -P): finds doxygen now, at build time, copies
# the public headers into <build>/docs/input/zel, generates <build>/docs/html
# afresh from the Doxyfile written at configure time, and gives the directory
# pages names that do not depend on where the build tree is.
find_program(ZEL_DOXYGEN doxygen)
if(NOT ZEL_DOXYGEN)
  message(FATAL_ERROR "The docs target needs doxygen, which is not installed. "
    "Install it (apt-get install doxygen), then build the target again: "
    "cmake --build <build directory> --target docs")
endif()
set(input "${ZEL_DOCS_OUTPUT}/input/zel")
file(REMOVE_RECURSE "${ZEL_DOCS_OUTPUT}/input" "${ZEL_DOCS_OUTPUT}/html")
file(MAKE_DIRECTORY "${input}")
file(COPY ${ZEL_HEADERS} DESTINATION "${input}")
execute_process(COMMAND "${ZEL_DOXYGEN}" "${ZEL_DOCS_OUTPUT}/Doxyfile"
  WORKING_DIRECTORY "${ZEL_DOCS_OUTPUT}" RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  file(REMOVE_RECURSE "${ZEL_DOCS_OUTPUT}/html")
  message(FATAL_ERROR "doxygen failed (any warning fails the docs target)")
endif()

# Doxygen names a directory's page after a hash of its absolute path
# (dir_<32 hex digits>.html). Each one is renamed after the directory's name
# (dir_zel.html), and the links to it follow.
file(GLOB pages "${ZEL_DOCS_OUTPUT}/html/dir_*.html")
set(renames "")
foreach(page IN LISTS pages)
  get_filename_component(old "${page}" NAME_WE)
  if(NOT old MATCHES "^dir_[0-9a-f]+$")
    continue()
  endif()
  file(STRINGS "${page}" title REGEX "<div class=\"title\">[^<]* Directory Reference")
  string(REGEX REPLACE ".*<div class=\"title\">([^<]*) Directory Reference.*" "\\1" name "${title}")
  string(MAKE_C_IDENTIFIER "${name}" name)
  if(name STREQUAL "" OR EXISTS "${ZEL_DOCS_OUTPUT}/html/dir_${name}.html")
    message(FATAL_ERROR "Cannot give ${page} a stable name (directory '${name}')")
  endif()
  file(RENAME "${page}" "${ZEL_DOCS_OUTPUT}/html/dir_${name}.html")
  list(APPEND renames "${old}=dir_${name}")
endforeach()
if(renames)
  file(GLOB files "${ZEL_DOCS_OUTPUT}/html/*.html" "${ZEL_DOCS_OUTPUT}/html/*.js")
  foreach(file IN LISTS files)
    file(READ "${file}" text)
    set(changed "${text}")
    foreach(rename IN LISTS renames)
      string(REPLACE "=" ";" pair "${rename}")
      list(GET pair 0 from)
      list(GET pair 1 to)
      string(REPLACE "${from}" "${to}" changed "${changed}")
    endforeach()
    if(NOT changed STREQUAL text)
      file(WRITE "${file}" "${changed}")
    endif()
  endforeach()
endif()
