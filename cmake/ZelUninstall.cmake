# `uninstall` target: removes every file the last `cmake --install` (or the
# `install` target) of this build directory installed, as listed in its
# install_manifest.txt, then the directories of the prefix it left empty.
#
#   cmake --install build/install --prefix /opt/zel
#   cmake --build build/install --target uninstall
add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -DZEL_MANIFEST=${CMAKE_BINARY_DIR}/install_manifest.txt
    -P ${CMAKE_CURRENT_LIST_DIR}/ZelUninstallScript.cmake
  COMMENT "Removing the files listed in ${CMAKE_BINARY_DIR}/install_manifest.txt"
  VERBATIM)
