# What `cmake --install` puts where. Each component is what the package of that name holds.
include(CMakePackageConfigHelpers)

set(headers "${CMAKE_INSTALL_INCLUDEDIR}/trel")
set(package "${CMAKE_INSTALL_LIBDIR}/cmake/Trel")

set(programs trelsnmpd trelctl)
if(TREL_ETCD)
  list(APPEND programs trelmemberd)
  install(TARGETS TrelEtcd LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT libtrelsnmp0)
  set_target_properties(TrelEtcd PROPERTIES INSTALL_RPATH "\$ORIGIN")
endif()
foreach(program IN LISTS programs)
  install(TARGETS ${program} COMPONENT ${program})
  file(GLOB pages docs/${program}.[18])
  foreach(page IN LISTS pages)
    string(REGEX MATCH ".$" section "${page}")
    install(FILES "${page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}" COMPONENT ${program})
  endforeach()
  install(FILES packaging/completion.bash DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
    RENAME ${program} COMPONENT ${program})
  install(FILES packaging/completion.zsh DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions"
    RENAME _${program} COMPONENT ${program})
endforeach()

# For a stock snmpd, which loads it by its path.
set_target_properties(TrelSnmpd PROPERTIES INSTALL_RPATH "\$ORIGIN/..")
install(TARGETS TrelSnmpd LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}/trel" COMPONENT libtrelsnmp0)

# Units name the programs at the place where they are installed, which may not be known before.
file(READ packaging/units/sandbox.in sandbox)
set(daemons ${programs})
list(REMOVE_ITEM daemons trelctl)
foreach(daemon IN LISTS daemons)
  set(bin @bin@)
  configure_file(packaging/units/${daemon}.service.in "${PROJECT_BINARY_DIR}/CMakeFiles/install/${daemon}.service.in" @ONLY)
  install(CODE "
    set(bin \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    configure_file(\"${PROJECT_BINARY_DIR}/CMakeFiles/install/${daemon}.service.in\"
      \"${PROJECT_BINARY_DIR}/CMakeFiles/install/${daemon}.service\" @ONLY)" COMPONENT ${daemon})
  install(FILES "${PROJECT_BINARY_DIR}/CMakeFiles/install/${daemon}.service"
    DESTINATION lib/systemd/system COMPONENT ${daemon})
  # The same user for both, of which either may be installed alone.
  install(FILES packaging/trel.sysusers DESTINATION lib/sysusers.d RENAME ${daemon}.conf COMPONENT ${daemon})
endforeach()
# The configuration of what is in /usr is in /etc.
install(CODE "
  set(configuration \"\${CMAKE_INSTALL_PREFIX}/etc\")
  if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
    set(configuration /etc)
  endif()
  file(INSTALL \"${PROJECT_SOURCE_DIR}/packaging/trelsnmpd.json\" DESTINATION \"\${configuration}/trel\")"
  COMPONENT trelsnmpd)

# A host of one's own links the first two; the others are the programs'.
set_target_properties(TrelSnmpPlugin PROPERTIES EXPORT_NAME TrelSnmp)
set_target_properties(platform PROPERTIES EXPORT_NAME TrelPlatform)
set_target_properties(platform TrelSnmpPlugin kelstore PROPERTIES INSTALL_RPATH "\$ORIGIN")
install(TARGETS platform TrelSnmpPlugin EXPORT TrelTargets
  LIBRARY COMPONENT libtrelsnmp0 NAMELINK_COMPONENT libtrelsnmp-dev
  INCLUDES DESTINATION "${headers}")
install(TARGETS kelstore LIBRARY COMPONENT libtrelsnmp0 NAMELINK_SKIP)

foreach(room platform mib-state pipelines agent)
  install(DIRECTORY ${room} DESTINATION "${headers}" COMPONENT libtrelsnmp-dev FILES_MATCHING PATTERN "*.h")
endforeach()
install(FILES snmp-modules/veldaTrelMIB.h snmp-modules/veldaTrelHostResourcesMIB.h
  DESTINATION "${headers}/snmp-modules" COMPONENT libtrelsnmp-dev)
install(EXPORT TrelTargets NAMESPACE Trel:: DESTINATION "${package}" COMPONENT libtrelsnmp-dev)
set(generated "${PROJECT_BINARY_DIR}/CMakeFiles/install")
configure_package_config_file(cmake/TrelConfig.cmake.in "${generated}/TrelConfig.cmake"
  INSTALL_DESTINATION "${package}")
write_basic_package_version_file("${generated}/TrelConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${generated}/TrelConfig.cmake" "${generated}/TrelConfigVersion.cmake"
  DESTINATION "${package}" COMPONENT libtrelsnmp-dev)
file(RELATIVE_PATH to_prefix "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(cmake/trel.pc.in "${generated}/trel.pc" @ONLY)
install(FILES "${generated}/trel.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT libtrelsnmp-dev)
install(DIRECTORY examples/host DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/libtrelsnmp-dev/examples" COMPONENT libtrelsnmp-dev)
install(PROGRAMS examples/cluster/certificates DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/trelctl/examples" COMPONENT trelctl)
install(FILES examples/cluster/cluster.json DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/trelctl/examples" COMPONENT trelctl)
install(FILES examples/trelmemberd.json DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/trelmemberd/examples" COMPONENT trelmemberd)

# Alone in a directory, so that a copy of it is all that a manager needs.
install(DIRECTORY "${TREL_MIBS}/" DESTINATION "${CMAKE_INSTALL_DATADIR}/trel/mibs" COMPONENT trel-mibs)

# They name the tables by number.
foreach(file nagios-commands.cfg snmp_exporter.yml)
  configure_file(packaging/monitoring/${file}.in "${generated}/${file}" @ONLY)
  install(FILES "${generated}/${file}" DESTINATION "${CMAKE_INSTALL_DATADIR}/trel/monitoring" COMPONENT trel-monitoring)
endforeach()
