# Turns the installed tree that cpack has staged into what Debian wants to see: a copyright file,
# compressed manual pages and changelogs, completions where Debian's zsh looks for them.
set(usr ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr)
set(doc ${usr}/share/doc/${CPACK_PACKAGE_NAME})

file(READ ${doc}/LICENSE license)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)\n\n(.*)\n$" all "${license}")
set(copyright ${CMAKE_MATCH_1})
string(REPLACE "\n\n" "\n.\n" text "${CMAKE_MATCH_2}")
string(REPLACE "\n" "\n " text "${text}")
file(WRITE ${doc}/copyright
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: ${CPACK_PACKAGE_NAME}

Files: *
Copyright: ${copyright}
License: Expat
 ${text}
")
file(REMOVE ${doc}/LICENSE)

file(RENAME ${doc}/CHANGELOG.md ${doc}/changelog)
string(TIMESTAMP now "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${doc}/changelog.Debian
"${CPACK_PACKAGE_NAME} (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=low

  * See changelog.gz.

 -- ${CPACK_PACKAGE_CONTACT}  ${now}
")
file(GLOB pages ${usr}/share/man/man?/*)
execute_process(COMMAND gzip -9n ${doc}/changelog ${doc}/changelog.Debian ${pages}
                COMMAND_ERROR_IS_FATAL ANY)

file(MAKE_DIRECTORY ${usr}/share/zsh/vendor-completions)
file(RENAME ${usr}/share/zsh/site-functions/_vqpack ${usr}/share/zsh/vendor-completions/_vqpack)
file(REMOVE_RECURSE ${usr}/share/zsh/site-functions)

file(GLOB_RECURSE archives ${usr}/lib/*.a)
execute_process(COMMAND strip --strip-unneeded --remove-section=.comment ${archives}
                COMMAND_ERROR_IS_FATAL ANY)
