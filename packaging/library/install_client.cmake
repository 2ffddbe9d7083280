# Installs the client library: the shared object, or what programs are built with.
# Wants `part`, `object`, `soname`, `link`, `version`, `architecture` and `made`,
# a folder of the build's.

include("${CMAKE_CURRENT_LIST_DIR}/folder.cmake")
cmake_path(GET object FILENAME name)

if(part MATCHES "^object$")
  file(INSTALL "${object}" DESTINATION "${target}" TYPE SHARED_LIBRARY)
  file(CREATE_LINK "${name}" "$ENV{DESTDIR}${target}/${soname}" SYMBOLIC)
else()
  configure_file("${CMAKE_CURRENT_LIST_DIR}/acp_client.pc.in" "${made}/acp_client.pc" @ONLY)
  file(INSTALL "${made}/acp_client.pc" DESTINATION "${target}/pkgconfig")
  file(CREATE_LINK "${soname}" "$ENV{DESTDIR}${target}/${link}" SYMBOLIC)
endif()
