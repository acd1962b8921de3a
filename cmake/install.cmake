#  The files of an installation. The Debian package uses this list unchanged. The most important places are:
#
#      lib/addrpubd/       the program, its client library with the modules, and a link to the ini file; all must be in
#                          one folder
#      sbin/addrpubd       a script that changes to lib/addrpubd/ and starts the program there
#      /etc/addrpubd/      the ini file; with another prefix than /usr this is PREFIX/etc/addrpubd/, and below /opt it
#                          is /etc/PREFIX/addrpubd/ (GNUInstallDirs)
#
#  The script sbin/addrpubd, the units, the drop-in check-settings.conf, the manual pages and addrpubd-check contain
#  such paths. So the prefix must be set when the build is configured.
#
#  All files belong to the user who installs them. The ini file contains passwords, so only this user may read it. A
#  package may set another owner or mode.

include(GNUInstallDirs)

set(ADDRPUBD_UNIT_DIR lib/systemd/system CACHE STRING "Folder of systemd's units; absolute or relative to the prefix")
set(ADDRPUBD_DIR ${CMAKE_INSTALL_PREFIX}/lib/addrpubd)
set(ADDRPUBD_SETTINGS ${CMAKE_INSTALL_FULL_SYSCONFDIR}/addrpubd)
set(ADDRPUBD_INI ${ADDRPUBD_SETTINGS}/addrpubd.ini)

set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(configured ${PROJECT_BINARY_DIR}/packaging)

foreach(file system/addrpubd system/addrpubd.service system/addrpubd@.service system/addrpubd-metrics.service
        system/check-settings.conf
        man/addrpubd.8 man/addrpubd.ini.5 man/addrpubd-check.8)
    configure_file(${packaging}/${file}.in ${configured}/${file} @ONLY)
endforeach()

#  The unit of an instance is the unit of the service, followed by the lines of addrpubd@.service.in.
set(instances ${configured}/system/addrpubd@.service)
file(READ ${configured}/system/addrpubd.service unit)
file(READ ${instances} lines)
file(WRITE ${instances} "${unit}${lines}")

install(CODE "
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL \"${CMAKE_INSTALL_PREFIX}\")
        message(FATAL_ERROR \"This build is for ${CMAKE_INSTALL_PREFIX}, which is written into its files. \"
            \"Configure it with -DCMAKE_INSTALL_PREFIX=\${CMAKE_INSTALL_PREFIX} and build it again.\")
    endif()")

#  The program loads the client library, and the client library loads its modules. The library and the modules need no
#  permission to execute.
install(TARGETS addrpubd RUNTIME DESTINATION ${ADDRPUBD_DIR})
get_property(modules GLOBAL PROPERTY ADDRPUBD_MODULES)
install(TARGETS rdbapix64 ${modules} LIBRARY DESTINATION ${ADDRPUBD_DIR}
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
file(MAKE_DIRECTORY ${configured}/link)
file(CREATE_LINK ${ADDRPUBD_INI} ${configured}/link/addrpubd.ini SYMBOLIC)
install(FILES ${configured}/link/addrpubd.ini DESTINATION ${ADDRPUBD_DIR})

install(PROGRAMS ${configured}/system/addrpubd DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${packaging}/system/addrpubd.ini DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/addrpubd
    PERMISSIONS OWNER_READ OWNER_WRITE)

install(FILES ${configured}/system/addrpubd.service ${instances} DESTINATION ${ADDRPUBD_UNIT_DIR})
install(FILES ${packaging}/system/addrpubd.sysusers DESTINATION lib/sysusers.d RENAME addrpubd.conf)
install(FILES ${packaging}/system/addrpubd.tmpfiles DESTINATION lib/tmpfiles.d RENAME addrpubd.conf)

install(FILES ${configured}/man/addrpubd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${configured}/man/addrpubd.ini.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)

#  bash looks for a file with the name of the command.
set(completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${packaging}/completion/addrpubd.bash DESTINATION ${completions} RENAME addrpubd)
file(CREATE_LINK addrpubd ${configured}/link/addrpubd-check SYMBOLIC)
install(FILES ${configured}/link/addrpubd-check DESTINATION ${completions})

#  The pages for users of the service are installed; the pages in docs/maintainer are not.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/user/ DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${packaging}/system/credentials.conf DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

if(TARGET addrpubd-check)
    target_compile_definitions(addrpubd-check PRIVATE ADDRPUBD_INI="${ADDRPUBD_INI}" ADDRPUBD_DIR="${ADDRPUBD_DIR}")
    install(TARGETS addrpubd-check RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
    install(FILES ${configured}/man/addrpubd-check.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
    install(FILES ${configured}/system/check-settings.conf DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
    install(FILES ${configured}/system/addrpubd-metrics.service ${packaging}/system/addrpubd-metrics.timer
        DESTINATION ${ADDRPUBD_UNIT_DIR})
endif()
