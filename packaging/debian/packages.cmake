# The Debian packages, made by CPack: each is a component of the installation
# with the files of debian/PACKAGE. finish.cmake adds what all of them have.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT
    "The developers of bh_servd <bh-servd@bh-servd.invalid>")
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
    WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/finish.cmake)
set(CPACK_BH_STRIP ${CMAKE_STRIP})
set(CPACK_COMPONENTS_ALL)

# The libraries that a cross compiler links are no packages of the appliance.
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE powerpc)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
endif()

# A package of what the component installs. DEPENDS is for what has no program
# that tells; CROSS_DEPENDS for a cross build, where no program tells anything.
function(bh_package name)
  cmake_parse_arguments(PARSE_ARGV 1 PACKAGE ""
    "COMPONENT;SECTION;SUMMARY;TEXT;DEPENDS;CROSS_DEPENDS;SUGGESTS" "")
  string(TOUPPER ${PACKAGE_COMPONENT} key)
  if(CMAKE_CROSSCOMPILING AND PACKAGE_CROSS_DEPENDS)
    set(PACKAGE_DEPENDS "${PACKAGE_CROSS_DEPENDS}")
  endif()
  set(folder ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/${name})
  file(GLOB control CONFIGURE_DEPENDS ${folder}/conffiles ${folder}/postinst
       ${folder}/postrm ${folder}/prerm ${folder}/shlibs ${folder}/triggers)

  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${PACKAGE_COMPONENT}
      PARENT_SCOPE)
  set(CPACK_COMPONENT_${key}_DESCRIPTION "${PACKAGE_SUMMARY}\n${PACKAGE_TEXT}"
      PARENT_SCOPE)
  foreach(field SECTION DEPENDS SUGGESTS)
    set(CPACK_DEBIAN_${key}_PACKAGE_${field} "${PACKAGE_${field}}"
        PARENT_SCOPE)
  endforeach()
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA "${control}" PARENT_SCOPE)
endfunction()

if(NOT BH_ONLY_LIBRARY)
  bh_package(bh-servd COMPONENT daemon SECTION admin
    SUMMARY "Management daemon of a network-storage appliance"
    TEXT
"Administrators on the local network discover the appliance with it, change
its address, names and clock, run commands on it and install its firmware.
.
The package has an init script, and a systemd unit for a single interface.
On a machine that is no appliance the daemon does not start."
    CROSS_DEPENDS "libc6 (>= 2.34)")
  bh_package(bhctl COMPONENT client SECTION net
    SUMMARY "Client for network-storage appliances"
    TEXT
"It discovers the appliances on the local network, changes their address,
names and clock, runs commands on them and installs their firmware.
.
The appliances run the daemon of the package bh-servd. Results can be had
as JSON."
    CROSS_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1")
  bh_package(libacp-client0 COMPONENT client_library SECTION libs
    SUMMARY "Client library for network-storage appliances"
    TEXT
"With it, programs discover the appliances on the local network, change their
address, names and clock, run commands on them and install their firmware."
    CROSS_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1")
  bh_package(libacp-client-dev COMPONENT client_development SECTION libdevel
    SUMMARY "Client library for network-storage appliances, to build with"
    TEXT
"With the library, programs discover the appliances on the local network,
change their address, names and clock, run commands on them and install their
firmware.
.
The package has the headers, a manual page and what pkg-config needs."
    DEPENDS "libacp-client0 (= ${PROJECT_VERSION}-1), g++" SUGGESTS "pkg-config")
endif()
bh_package(libbh-dev COMPONENT library SECTION libdevel
  SUMMARY "Settings library of a network-storage appliance"
  TEXT
"Through libbh the programs of an appliance read and change its settings:
interfaces, routes, names, clock, and files of keys and values.
.
The package has the header, the static library, manual pages, and what
pkg-config and CMake need to find them. There is no shared library."
  DEPENDS "libc6-dev" SUGGESTS "cmake, pkg-config")
include(CPack)
