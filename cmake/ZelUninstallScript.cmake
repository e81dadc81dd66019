# Run by the `uninstall` target (cmake -DZEL_MANIFEST=... -P): removes the
# files of an install manifest, then the directories of the project's own
# (include/zel, lib/.../cmake/ZelCommon, share/doc/ZelCommon and what is below
# them) that are left empty, deepest first. Shared directories such as bin/
# or lib/ stay, even when empty: other software may expect them.
if(NOT EXISTS "${ZEL_MANIFEST}")
  message(FATAL_ERROR "Nothing to uninstall: ${ZEL_MANIFEST} does not exist (run cmake --install first).")
endif()
file(STRINGS "${ZEL_MANIFEST}" files)
set(dirs "")
foreach(file IN LISTS files)
  if(IS_SYMLINK "${file}" OR EXISTS "${file}")
    message(STATUS "Removing ${file}")
    file(REMOVE "${file}")
    if(IS_SYMLINK "${file}" OR EXISTS "${file}")
      message(FATAL_ERROR "Cannot remove ${file}")
    endif()
  endif()
  get_filename_component(dir "${file}" DIRECTORY)
  while(dir MATCHES "/(include/zel|cmake/ZelCommon|doc/ZelCommon)(/.*)?$")
    list(APPEND dirs "${dir}")
    get_filename_component(dir "${dir}" DIRECTORY)
  endwhile()
endforeach()
list(REMOVE_DUPLICATES dirs)
# Longest path first: a directory's children before the directory.
list(SORT dirs ORDER DESCENDING)
foreach(dir IN LISTS dirs)
  file(GLOB children "${dir}/*" "${dir}/.*")
  if(IS_DIRECTORY "${dir}" AND children STREQUAL "")
    file(REMOVE "${dir}")
    execute_process(COMMAND rmdir "${dir}" ERROR_QUIET)
  endif()
endforeach()
