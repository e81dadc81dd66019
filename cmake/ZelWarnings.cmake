# zel_warnings: the one place the project's warning flags live. An INTERFACE
# library carrying them; every target of the project (library objects, tests,
# tools, examples, benchmarks, fuzz targets) and the packaging test's
# consumer link it PRIVATE, so the flags reach their own sources only and
# never the targets installed for users.
if(NOT TARGET zel_warnings)
  add_library(zel_warnings INTERFACE)
  target_compile_options(zel_warnings INTERFACE -Wall -Wextra -Werror)
endif()
