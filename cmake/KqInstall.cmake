# What `cmake --install` puts on an appliance; debian/ splits the same files into packages.
# The module and the reference host (versioned SONAMEs), their public headers, the request
# messages' .proto, a pkg-config file for each library, kqagent with its systemd unit and a
# commented settings file, and the man pages.
# An appliance package lives under /usr; the prefix is baked into the unit file.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Install path prefix" FORCE)
endif()
include(GNUInstallDirs)
# Install what is built; building everything first (tests included) is the build's job.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

# The runtime parts and the development parts, so that a packager can tell them apart
# (cmake --install --component).
install(TARGETS kqdynamic
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES ${CMAKE_SOURCE_DIR}/src/host/kqHost.h
              ${CMAKE_SOURCE_DIR}/src/modules/dynamic/kqCtrlDynamic.h
              ${KQ_GEN_DIR}/kqDhcp.pb-c.h
              ${KQ_GEN_DIR}/kqDynamicVersion.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kqdynamic COMPONENT development)
# The controller side generates its own bindings from it; kqdynamic.pc names its folder.
install(FILES ${CMAKE_SOURCE_DIR}/proto/kqDhcp.proto DESTINATION ${CMAKE_INSTALL_DATADIR}/kqdynamic
        COMPONENT development)
# Relative to the .pc file, so the package is right wherever it is unpacked.
file(RELATIVE_PATH KQ_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(${CMAKE_SOURCE_DIR}/cmake/kqdynamic.pc.in ${CMAKE_BINARY_DIR}/kqdynamic.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kqdynamic.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(TARGET kqhost)
  install(TARGETS kqhost
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
  install(FILES ${CMAKE_SOURCE_DIR}/src/host/linux/kqHostLinux.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kqdynamic
          COMPONENT development)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/kqhost.pc.in ${CMAKE_BINARY_DIR}/kqhost.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/kqhost.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endif()

if(TARGET kqagent)
  # Under a prefix of its own (/opt/kq, say) the agent finds its libraries beside it; in the
  # system's library folder (/usr, the Debian packages) the loader does, and an RPATH there
  # is what Debian forbids.
  if(NOT CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
    set_target_properties(kqagent PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  endif()
  install(TARGETS kqagent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT agent)
  # For the /usr prefix, where systemd looks for the units of the system's packages
  # (/lib/systemd/system on Debian 12); under any other prefix, below it.
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    pkg_get_variable(KQ_SYSTEMD_UNIT_DIR systemd systemdsystemunitdir)
  endif()
  if(NOT KQ_SYSTEMD_UNIT_DIR)
    set(KQ_SYSTEMD_UNIT_DIR lib/systemd/system)
  endif()
  # The unit names the settings file; /etc for the /usr prefix (GNUInstallDirs).
  set(KQ_SETTINGS_FILE ${CMAKE_INSTALL_FULL_SYSCONFDIR}/kqagent/kqhost.json)
  configure_file(${CMAKE_SOURCE_DIR}/tools/kqagent/kqagent.service ${CMAKE_BINARY_DIR}/kqagent.service @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/kqagent.service DESTINATION ${KQ_SYSTEMD_UNIT_DIR} COMPONENT agent)
  # /etc, not /usr/etc, for the /usr prefix.
  install(FILES ${CMAKE_SOURCE_DIR}/tools/kqagent/kqhost.json DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/kqagent
          COMPONENT agent)
  install(FILES ${CMAKE_SOURCE_DIR}/man/kqagent.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT agent)
  install(FILES ${CMAKE_SOURCE_DIR}/man/kqagent.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT agent)
endif()
