# Debian packages of libzel_common, built with `cpack -G DEB` from a build
# directory configured with CMAKE_INSTALL_PREFIX=/usr (./dev.sh package-check
# does this):
#
#   libzel-common1     runtime: libzel_common.so.1.0.0 and its SONAME link
#   libzel-common-dev  development: headers (include/zel), the .so link, the
#                      CMake package ZelCommon, zel_common.pc and, when
#                      configured with ZEL_INSTALL_API_DOCS, the API HTML in
#                      /usr/share/doc/libzel-common-dev/html
#   zel-tools          the `zel` command-line tool and its manual page
#
# The tool has a package of its own because a library package must not carry
# files whose names stay the same when the SONAME changes. Every package
# carries /usr/share/doc/<package>/copyright (machine-readable, from
# cmake/debian/copyright.in) and changelog.Debian.gz. The runtime package
# updates the linker cache through the ldconfig trigger, and both library
# packages are "Multi-Arch: same" (cmake/ZelDebFixup.cmake adds what CPack
# cannot write).
set(ZEL_MAINTAINER "libzel_common maintainers <maintainers@zel-framework.org>")
set(CPACK_PACKAGE_NAME "libzel-common")
set(CPACK_PACKAGE_VENDOR "Zel framework")
set(CPACK_PACKAGE_CONTACT "${ZEL_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_GENERATOR "DEB")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development tools)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps (package dpkg-dev) works out the libc, libstdc++ and POCO
# runtime packages from the binaries themselves.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Lets dpkg-shlibdeps resolve libzel_common.so.1 for the tool from the build
# tree; the tool's dependency on the runtime package is declared below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_BINARY_DIR}/src/common")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "libzel-common${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Descriptions: the first line is the package's synopsis, the others the
# extended description; CPack indents them and turns an empty line into the
# paragraph separator " .".
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "${PROJECT_DESCRIPTION}
Logging wrapper with a size-rotated local log file, return codes and
exceptions, distinguished-name and instance-path utilities, message pipes,
worker threads, timers and an XML configuration reader.

This package contains the shared library.")
# A shlibs control file, so that packages built against the library depend
# on this package, and the ldconfig trigger instead of maintainer scripts.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${CMAKE_CURRENT_LIST_DIR}/debian/triggers")
set(CPACK_POST_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/ZelDebFixup.cmake")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME "libzel-common-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_ARCHITECTURE_INDEPENDENT OFF)
# The headers include POCO headers; the CMake package finds POCO's.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libpoco-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "${PROJECT_DESCRIPTION} - development files
Headers (in /usr/include/zel, included as <zel/...>), the CMake package
ZelCommon (target Zel::common), the pkg-config file zel_common.pc and the
API documentation of libzel_common.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME "zel-tools")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "Command-line tool of the Zel framework's common library
zel writes log records the way the framework's processes do, checks and
takes apart distinguished names and instance paths, reads configuration
files and names return codes.")
# Keeps CPack from putting the project's one-line summary in front of each
# package's own synopsis.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/CPackProjectConfig.cmake)

# Component dependencies become "Depends: libzel-common1 (= <version>)".
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

# copyright and changelog.Debian.gz of each package.
set(ZEL_DEBIAN_DIR ${CMAKE_BINARY_DIR}/debian)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/copyright.in ${ZEL_DEBIAN_DIR}/copyright @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${ZEL_DEBIAN_DIR}/changelog @ONLY)
find_program(ZEL_GZIP gzip)
if(ZEL_GZIP)
  # -n leaves out the name and time stamp, so the file is reproducible.
  execute_process(COMMAND ${ZEL_GZIP} -9 -n -c ${ZEL_DEBIAN_DIR}/changelog
    OUTPUT_FILE ${ZEL_DEBIAN_DIR}/changelog.Debian.gz)
  foreach(component runtime development tools)
    string(TOUPPER ${component} upper)
    install(FILES ${ZEL_DEBIAN_DIR}/copyright ${ZEL_DEBIAN_DIR}/changelog.Debian.gz
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
      COMPONENT ${component})
  endforeach()
endif()

include(CPack)
