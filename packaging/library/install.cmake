# Installs libbh.a with its pkg-config file and its CMake package.
# Wants `archive`, `version`, `architecture`, `version_file` and `made`, a
# folder of the build's.

include("${CMAKE_CURRENT_LIST_DIR}/folder.cmake")

set(templates "${CMAKE_CURRENT_LIST_DIR}")
configure_file("${templates}/libbh.pc.in" "${made}/libbh.pc" @ONLY)
configure_file("${templates}/bh-config.cmake.in" "${made}/bh-config.cmake"
               @ONLY)
file(INSTALL "${archive}" DESTINATION "${target}")
file(INSTALL "${made}/libbh.pc" DESTINATION "${target}/pkgconfig")
file(INSTALL "${made}/bh-config.cmake" "${version_file}"
     DESTINATION "${target}/cmake/bh")
