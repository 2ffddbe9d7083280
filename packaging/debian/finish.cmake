# CPack runs this between installing the components and making the packages. It
# adds what Debian wants in each package: changelogs, copyright, README.Debian,
# lintian's overrides, and manual pages compressed.

set(here "${CMAKE_CURRENT_LIST_DIR}")
set(top "${here}/../..")

function(must_run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

function(write_copyright file)
  file(READ "${top}/LICENSE" license)
  string(REGEX MATCH "Copyright [^\n]*" holders "${license}")
  string(REGEX REPLACE "Copyright \\(c\\)" "Copyright:" holders "${holders}")
  string(REGEX REPLACE "^.*(Permission is)" "\\1" terms "${license}")
  string(STRIP "${terms}" terms)
  string(REPLACE "\n\n" "\n.\n" terms "${terms}")
  string(REGEX REPLACE "\n" "\n " terms " ${terms}")
  configure_file("${here}/copyright.in" "${file}" @ONLY)
endfunction()

# The packages' own changelog; what changed in the programs is in the other one,
# which is the tree's.
function(write_changelog package file)
  set(format "%a, %d %b %Y %H:%M:%S +0000")
  if(DEFINED ENV{SOURCE_DATE_EPOCH})
    string(TIMESTAMP date "${format}" UTC)
  else()
    file(TIMESTAMP "${top}/CHANGELOG.md" date "${format}" UTC)
  endif()
  set(version ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
  file(WRITE "${file}" "${package} (${version}) unstable; urgency=medium

  * Release ${CPACK_PACKAGE_VERSION}: see changelog.gz for what is new.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
endfunction()

# Pages that only name another one become links to it.
function(compress_pages root)
  file(GLOB pages "${root}/usr/share/man/man?/*")
  foreach(page IN LISTS pages)
    file(READ "${page}" text LIMIT 200)
    if(text MATCHES "^\\.so man./([^\n]+)\n$")
      file(CREATE_LINK "${CMAKE_MATCH_1}.gz" "${page}.gz" SYMBOLIC)
      file(REMOVE "${page}")
    else()
      must_run(gzip -n9 "${page}")
    endif()
  endforeach()
endfunction()

function(strip_libraries root)
  file(GLOB_RECURSE archives "${root}/usr/lib/*.a")
  foreach(archive IN LISTS archives)
    must_run("${CPACK_BH_STRIP}" --strip-debug --remove-section=.comment
             --remove-section=.note --enable-deterministic-archives
             "${archive}")
  endforeach()
  file(GLOB_RECURSE objects "${root}/usr/lib/*.so.*")
  foreach(object IN LISTS objects)
    if(NOT IS_SYMLINK "${object}")
      must_run("${CPACK_BH_STRIP}" --strip-unneeded --remove-section=.comment
               --remove-section=.note "${object}")
    endif()
  endforeach()
endfunction()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER "${component}" key)
  set(package "${CPACK_DEBIAN_${key}_PACKAGE_NAME}")
  set(root "${CPACK_TEMPORARY_DIRECTORY}/${component}")
  set(doc "${root}/usr/share/doc/${package}")

  file(COPY "${here}/${package}/README.Debian" DESTINATION "${doc}")
  write_copyright("${doc}/copyright")
  write_changelog(${package} "${doc}/changelog.Debian")
  file(COPY_FILE "${top}/CHANGELOG.md" "${doc}/changelog")
  must_run(gzip -n9 "${doc}/changelog" "${doc}/changelog.Debian")
  if(EXISTS "${here}/${package}/lintian-overrides")
    set(overrides "${root}/usr/share/lintian/overrides")
    file(MAKE_DIRECTORY "${overrides}")
    file(COPY_FILE "${here}/${package}/lintian-overrides"
         "${overrides}/${package}")
  endif()
  compress_pages("${root}")
  strip_libraries("${root}")
  must_run(chmod -R u=rwX,go=rX "${root}/usr/share")
endforeach()
