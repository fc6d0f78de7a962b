# What is installed, and the Debian package of it (tools/package builds that).
include(CMakePackageConfigHelpers)

set(vorn_headers ${CMAKE_INSTALL_INCLUDEDIR}/vorn)
set(vorn_cmake ${CMAKE_INSTALL_LIBDIR}/cmake/vorn)

install(TARGETS evlog vorn vornsim EXPORT vorn
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} INCLUDES DESTINATION ${vorn_headers})
install(TARGETS vorn-scrub-installed)
install(DIRECTORY include/ evlog/ sim/ DESTINATION ${vorn_headers} FILES_MATCHING PATTERN *.h)

install(EXPORT vorn NAMESPACE vorn:: FILE vornConfig.cmake DESTINATION ${vorn_cmake})
write_basic_package_version_file(vornConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vornConfigVersion.cmake DESTINATION ${vorn_cmake})
configure_file(packaging/vorn.pc.in vorn.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vorn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES examples/scrub/scrub.ini examples/node/product.ini examples/node/numa.ini
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
  FILES_MATCHING PATTERN *.c PATTERN *.cc PATTERN scrub EXCLUDE PATTERN node EXCLUDE)
install(PROGRAMS sim/vorn-node DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN *.md)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "Vorn developers <vorn@localhost>")
set(CPACK_PACKAGE_DESCRIPTION "libvorn.so, its default logging library, the simulator of the node's kernel\nmodule, the headers, and the vorn-scrub service.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
# Its header is what vorn_xml.h includes; nothing on a node needs it.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS libmxml-dev)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_VERBATIM_VARIABLES ON)
include(CPack)
