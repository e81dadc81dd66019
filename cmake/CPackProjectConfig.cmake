# Read by cpack for every generator run (CPACK_PROJECT_CONFIG_FILE).
#
# Every Debian package starts its description with a synopsis of its own;
# without a global summary CPack uses those lines as they are.
if(CPACK_GENERATOR STREQUAL "DEB")
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
endif()
