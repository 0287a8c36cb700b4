# Where things are installed, in components: sender, responder, exporter, platform-stub.

# The stand-ins of the device's libraries are nobody else's: they have a directory of their own.
set(IPSLA_PRIVATE_LIBDIR ${CMAKE_INSTALL_LIBDIR}/ip-sla)

# How a program below `bindir` finds the device's libraries. The loader looks here before it looks
# where it always does, so these places are named before the stand-ins': a device's own libraries
# win wherever they are. LD_LIBRARY_PATH still comes before all of it.
function(ipsla_find_device_libraries target bindir)
  file(RELATIVE_PATH private_libdir
    ${CMAKE_INSTALL_PREFIX}/${bindir} ${CMAKE_INSTALL_PREFIX}/${IPSLA_PRIVATE_LIBDIR})
  set(directories /usr/local/lib)
  if(CMAKE_LIBRARY_ARCHITECTURE)
    list(APPEND directories
      /lib/${CMAKE_LIBRARY_ARCHITECTURE} /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
  endif()
  list(APPEND directories /lib64 /usr/lib64 /lib /usr/lib $ORIGIN/${private_libdir})
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "${directories}")
  target_link_options(${target} PRIVATE -Wl,--enable-new-dtags)
endfunction()

# Installs what lies where only the prefix at the time of the installation tells: a unit, files
# below etc. Of a unit's template "x.in" the directories are filled in. A configuration file that is
# there already stays as it is.
#   ipsla_install_system(COMPONENT name [UNITS file...] [CONFIGURATION file...] [SECRETS file...])
function(ipsla_install_system)
  cmake_parse_arguments(PARSE_ARGV 0 system "" "COMPONENT" "UNITS;CONFIGURATION;SECRETS")
  set(script ${CMAKE_BINARY_DIR}/install_${system_COMPONENT}.cmake)
  foreach(list UNITS CONFIGURATION SECRETS)
    list(TRANSFORM system_${list} PREPEND ${CMAKE_SOURCE_DIR}/deploy/)
  endforeach()
  configure_file(${CMAKE_SOURCE_DIR}/cmake/install_system.cmake.in ${script} @ONLY)
  install(SCRIPT ${script} COMPONENT ${system_COMPONENT})
endfunction()

function(ipsla_install_project_files)
  install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/CHANGELOG.md
    ${CMAKE_SOURCE_DIR}/LICENSE
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT sender)
  # Beside each other as in the tree, so that their links hold. Manual pages have a place of their
  # own.
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs ${CMAKE_SOURCE_DIR}/examples
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT sender PATTERN man EXCLUDE)
  ipsla_install_system(COMPONENT sender
    UNITS ip-sla-sender.service.in CONFIGURATION etc/tasks.json SECRETS etc/keychain.json)
  if(TARGET ip-sla-responder)
    ipsla_install_system(COMPONENT responder
      UNITS ip-sla-responder.service.in CONFIGURATION etc/responder.conf
      SECRETS etc/responder-keychain.json)
  endif()
  if(TARGET ip-sla-exporter)
    ipsla_install_system(COMPONENT exporter
      UNITS ip-sla-exporter.service.in CONFIGURATION etc/exporter.conf)
    install(DIRECTORY ${CMAKE_SOURCE_DIR}/deploy/prometheus ${CMAKE_SOURCE_DIR}/deploy/grafana
      DESTINATION ${CMAKE_INSTALL_DATADIR}/ip-sla COMPONENT exporter)
  endif()
endfunction()
