# Turns the installed trees that cpack has staged, one a package, into what Debian wants to see: a
# copyright file and changelogs in each, compressed manual pages, completions where Debian's zsh
# looks for them.
set(source ${CMAKE_CURRENT_LIST_DIR}/..)

file(READ ${source}/LICENSE license)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)\n\n(.*)\n$" all "${license}")
set(copyright ${CMAKE_MATCH_1})
string(REPLACE "\n\n" "\n.\n" license "${CMAKE_MATCH_2}")
string(REPLACE "\n" "\n " license "${license}")
string(TIMESTAMP now "%a, %d %b %Y %H:%M:%S +0000" UTC)

foreach(package ${CPACK_COMPONENTS_ALL})
  set(usr ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${package}/usr)
  set(doc ${usr}/share/doc/${package})
  file(MAKE_DIRECTORY ${doc})
  file(WRITE ${doc}/copyright
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: vqpack

Files: *
Copyright: ${copyright}
License: Expat
 ${license}
")
  file(COPY_FILE ${source}/CHANGELOG.md ${doc}/changelog)
  file(WRITE ${doc}/changelog.Debian
"vqpack (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=low

  * See changelog.gz.

 -- ${CPACK_PACKAGE_CONTACT}  ${now}
")
  file(REMOVE ${doc}/LICENSE ${doc}/CHANGELOG.md)
  file(GLOB pages ${usr}/share/man/man?/*)
  execute_process(COMMAND gzip -9nf ${doc}/changelog ${doc}/changelog.Debian ${pages}
                  COMMAND_ERROR_IS_FATAL ANY)
  file(GLOB_RECURSE archives ${usr}/lib/*.a)
  if(archives)
    execute_process(COMMAND strip --strip-unneeded --remove-section=.comment ${archives}
                    COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()

set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/vqpack/usr/share)
file(GLOB completions ${share}/zsh/site-functions/*)
file(COPY ${completions} DESTINATION ${share}/zsh/vendor-completions)
file(REMOVE_RECURSE ${share}/zsh/site-functions)

# The examples belong to those who have the headers.
set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/libvqpack-dev/usr/share)
file(RENAME ${share}/doc/vqpack/examples ${share}/doc/libvqpack-dev/examples)
file(REMOVE_RECURSE ${share}/doc/vqpack)
