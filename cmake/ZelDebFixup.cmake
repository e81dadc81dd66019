# Run by cpack after the Debian packages are built (CPACK_POST_BUILD_SCRIPTS;
# CPACK_PACKAGE_FILES lists them). It finishes what CPack's DEB generator
# cannot express:
#   - the library packages (runtime and -dev) get "Multi-Arch: same", so the
#     packages of several architectures can be installed side by side (their
#     files live under the multiarch library directory or are identical);
#   - the runtime package drops the postinst and postrm that CPack writes for
#     a library in /usr/lib: they only call ldconfig, which the package's
#     "activate-noawait ldconfig" trigger (cmake/debian/triggers) does instead.
# Each package is unpacked with dpkg-deb -R and built again with dpkg-deb -b.
find_program(ZEL_DPKG_DEB dpkg-deb REQUIRED)

function(zel_run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result ERROR_VARIABLE error)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGN} failed: ${error}")
  endif()
endfunction()

foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name "${deb}" NAME)
  if(NOT name MATCHES "^libzel-common")
    continue()
  endif()
  set(tree "${deb}.tree")
  file(REMOVE_RECURSE "${tree}")
  zel_run(${ZEL_DPKG_DEB} -R "${deb}" "${tree}")

  file(READ "${tree}/DEBIAN/control" control)
  if(NOT control MATCHES "\nMulti-Arch:")
    string(REGEX REPLACE "(Architecture: [^\n]*\n)" "\\1Multi-Arch: same\n" control "${control}")
    file(WRITE "${tree}/DEBIAN/control" "${control}")
  endif()

  foreach(script postinst postrm)
    if(EXISTS "${tree}/DEBIAN/${script}")
      file(READ "${tree}/DEBIAN/${script}" text)
      # Only CPack's ldconfig call goes; a script that does more is kept.
      string(REGEX REPLACE "#![^\n]*\n|set -e\n|if \\[ \"\\$1\" = \"[a-z]*\" \\]; then\n|ldconfig\n|fi\n|[ \t\n]" "" rest "${text}")
      if(rest STREQUAL "")
        file(REMOVE "${tree}/DEBIAN/${script}")
      else()
        message(FATAL_ERROR "${name}: ${script} does more than call ldconfig:\n${text}")
      endif()
    endif()
  endforeach()

  zel_run(${ZEL_DPKG_DEB} --root-owner-group -b "${tree}" "${deb}")
  file(REMOVE_RECURSE "${tree}")
endforeach()
