# Below /usr, Debian keeps libraries in a folder of the processor's: which folder it is shows only
# when the prefix is known. Wants `architecture`; sets `target`.

set(library_folder lib)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND architecture)
  set(library_folder lib/${architecture})
endif()
set(target "${CMAKE_INSTALL_PREFIX}/${library_folder}")
