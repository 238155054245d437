# What `cmake --install` puts where, and the Debian packages that `cpack` makes of it. Components are
# named after the packages.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME libvqpack-dev)
install(TARGETS vqcomp EXPORT vqpack INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vqpack)
if(VQPACK_BUILD_C_LIBRARY)
  install(TARGETS vqpack_c EXPORT vqpack INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          LIBRARY COMPONENT libvqpack0 NAMELINK_COMPONENT libvqpack-dev)
endif()

# find_package(vqpack) and pkg-config; both find the tree wherever it has been moved to.
set(cmake_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vqpack)
install(EXPORT vqpack FILE vqpack-config.cmake NAMESPACE vqpack:: DESTINATION ${cmake_package_dir})
write_basic_package_version_file(vqpack-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vqpack-config-version.cmake DESTINATION ${cmake_package_dir})

set(pkgconfig_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pkgconfig_to_include ${pkgconfig_dir} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
set(libraries vqpack)
if(VQPACK_BUILD_C_LIBRARY)
  list(APPEND libraries libvqpack)
endif()
foreach(library ${libraries})
  configure_file(packaging/${library}.pc.in ${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

file(GLOB examples CONFIGURE_DEPENDS examples/*.cpp examples/*.c examples/*.py)
install(FILES examples/CMakeLists.txt ${examples} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME vqpack)
install(FILES man/velk.5 man/qubix.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES README.md CHANGELOG.md SECURITY.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES bench/comparison.svg DESTINATION ${CMAKE_INSTALL_DOCDIR}/bench)
if(EXISTS ${PROJECT_SOURCE_DIR}/doc)
  install(DIRECTORY doc/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/doc FILES_MATCHING PATTERN *.md PATTERN *.png)
endif()

foreach(program vqpack vqtrace)
  if(TARGET ${program})
    install(TARGETS ${program})
    install(FILES man/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES completions/${program}.bash RENAME ${program}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    install(FILES completions/_${program} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
    install(FILES completions/${program}.fish
            DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
  endif()
endforeach()

if(NOT PROJECT_IS_TOP_LEVEL)
  return()  # packages are the business of the project that takes this one in
endif()

# The Python module goes where Debian's Python looks for it, and for that reason into the package
# alone; elsewhere pip installs it.
file(GLOB python_module CONFIGURE_DEPENDS python/vqpack/*.py python/vqpack/py.typed)
if(python_module)
  install(FILES ${python_module} DESTINATION lib/python3/dist-packages/vqpack
          COMPONENT python3-vqpack EXCLUDE_FROM_ALL)
endif()

# The Debian packages: cpack -G DEB. gzip is always there on Debian; bzip2 is wanted only for names
# in .bz2. What Debian arranges differently from other systems is done to the staged trees by
# debian.cmake.
set(CPACK_PACKAGE_CONTACT "the vqpack authors <authors@vqpack.invalid>"
    CACHE STRING "The maintainer whom the packages name")
set(what_it_is
"Traces of the transactions on a processor's bus are large. vqpack converts
them between VELK, a text format with one transaction a line, and QUBIX, a
compact binary format in six file types with checksums and metadata.
")
set(same_version "(= ${PROJECT_VERSION}-1)")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each has its own
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL vqpack libvqpack0 libvqpack-dev)
if(python_module)
  list(APPEND CPACK_COMPONENTS_ALL python3-vqpack)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

# package(NAME SECTION SUMMARY TEXT [FIELD VALUE...]...)
function(package name section summary text)
  string(TOUPPER ${name} component)
  set(prefix CPACK_DEBIAN_${component})
  set(${prefix}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(${prefix}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(${prefix}_DESCRIPTION "${summary}\n${what_it_is}\n${text}" PARENT_SCOPE)
  set(fields DEPENDS RECOMMENDS SUGGESTS CONTROL_EXTRA ARCHITECTURE)
  cmake_parse_arguments(PARSE_ARGV 4 given "" "" "${fields}")
  foreach(field ${fields})
    if(given_${field})
      set(${prefix}_PACKAGE_${field} "${given_${field}}" PARENT_SCOPE)
    endif()
  endforeach()
endfunction()

package(vqpack utils "converter for memory-bus traces"
        "This package holds the program, vqtrace, which cuts, joins and examines
traces and exchanges them with other tools, and the manual pages."
        RECOMMENDS bzip2)
package(libvqpack0 libs "memory-bus traces from C and other languages"
        "This package holds the shared library for programs in any language."
        RECOMMENDS bzip2
        CONTROL_EXTRA ${PROJECT_BINARY_DIR}/shlibs ${PROJECT_BINARY_DIR}/triggers)
file(WRITE ${PROJECT_BINARY_DIR}/shlibs "libvqpack 0 libvqpack0 (>= ${PROJECT_VERSION})\n")
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
package(libvqpack-dev libdevel "memory-bus traces from C++ and C, for development"
        "This package holds the headers, the static library libvqcomp for C++ and
example programs, to read and write such traces."
        DEPENDS "libvqpack0 ${same_version}" RECOMMENDS vqpack)
package(python3-vqpack python "memory-bus traces as numpy arrays"
        "This package holds the module vqpack for Python 3."
        DEPENDS "libvqpack0 ${same_version}, python3, python3-numpy" SUGGESTS "python3-pandas, python3-matplotlib, python3-tqdm"
        ARCHITECTURE all
        CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/postinst
                      ${PROJECT_SOURCE_DIR}/packaging/prerm)
set(CPACK_DEBIAN_PYTHON3-VQPACK_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian.cmake)
include(CPack)
