# Installs the project; packaging/debian makes packages of the installed files.
# SPDX-License-Identifier: Apache-2.0
include(CMakePackageConfigHelpers)

set(vorn_headers ${CMAKE_INSTALL_INCLUDEDIR}/vorn)
set(vorn_cmake ${CMAKE_INSTALL_LIBDIR}/cmake/vorn)

install(TARGETS evlog vorn EXPORT vorn
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} INCLUDES DESTINATION ${vorn_headers})
install(TARGETS vornsim EXPORT vornsim
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} INCLUDES DESTINATION ${vorn_headers})
install(TARGETS vorn-scrub-installed)
install(PROGRAMS sim/vorn-node DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/ evlog/ sim/ DESTINATION ${vorn_headers} FILES_MATCHING PATTERN *.h)

install(EXPORT vorn NAMESPACE vorn:: FILE vornTargets.cmake DESTINATION ${vorn_cmake})
install(EXPORT vornsim NAMESPACE vorn:: FILE vornsimTargets.cmake DESTINATION ${vorn_cmake})
configure_package_config_file(packaging/vornConfig.cmake.in vornConfig.cmake INSTALL_DESTINATION ${vorn_cmake})
write_basic_package_version_file(vornConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vornConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/vornConfigVersion.cmake
  DESTINATION ${vorn_cmake})
configure_file(packaging/vorn.pc.in vorn.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vorn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The nightly run of vorn-scrub, its settings, and the completion of its command line.
configure_file(packaging/systemd/vorn-scrub@.service.in vorn-scrub@.service @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vorn-scrub@.service packaging/systemd/vorn-scrub@.timer
  DESTINATION lib/systemd/system)
install(FILES examples/scrub/scrub.ini DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/vorn-scrub)
install(FILES packaging/bash-completion/vorn-scrub DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
