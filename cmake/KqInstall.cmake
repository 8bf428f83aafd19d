# What `cmake --install` puts on an appliance, and the .deb that `cpack -G DEB` makes of it:
# the module and the reference host, their public headers, a pkg-config file for the module,
# kqagent with its systemd unit, and the man pages.
# An appliance package lives under /usr; the prefix is baked into the unit file.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Install path prefix" FORCE)
endif()
include(GNUInstallDirs)
# Install what is built; building everything first (tests included) is the build's job.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

install(TARGETS kqdynamic LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${CMAKE_SOURCE_DIR}/src/host/kqHost.h
              ${CMAKE_SOURCE_DIR}/src/modules/dynamic/kqCtrlDynamic.h
              ${KQ_GEN_DIR}/kqDhcp.pb-c.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kqdynamic)
# Relative to the .pc file, so the package is right wherever it is unpacked.
file(RELATIVE_PATH KQ_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(${CMAKE_SOURCE_DIR}/cmake/kqdynamic.pc.in ${CMAKE_BINARY_DIR}/kqdynamic.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kqdynamic.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET kqhost)
  install(TARGETS kqhost LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES ${CMAKE_SOURCE_DIR}/src/host/linux/kqHostLinux.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kqdynamic)
endif()

if(TARGET kqagent)
  # Found beside it wherever the package is unpacked (also in a test's private root).
  set_target_properties(kqagent PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS kqagent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  set(KQ_SYSTEMD_UNIT_DIR lib/systemd/system)  # under the prefix: /usr/lib/systemd/system
  configure_file(${CMAKE_SOURCE_DIR}/tools/kqagent/kqagent.service ${CMAKE_BINARY_DIR}/kqagent.service @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/kqagent.service DESTINATION ${KQ_SYSTEMD_UNIT_DIR})
  install(FILES ${CMAKE_SOURCE_DIR}/man/kqagent.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
  install(FILES ${CMAKE_SOURCE_DIR}/man/kqagent.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
endif()

set(CPACK_PACKAGE_NAME kqagent)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "DHCP servers, relay and clients of a network appliance (dynamic module, host agent)")
set(CPACK_PACKAGE_CONTACT "kqagent maintainers <maintainers@example.org>")
# The package holds what `cmake --install` would put there (the unit file names the prefix).
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libjson-c5, libprotobuf-c1, libsystemd0, dnsmasq-base, isc-dhcp-client, iproute2")
include(CPack)
