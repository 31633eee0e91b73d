# What a switch image needs around the CLI: its man page and bash completion, written at build
# time from its own help, and the boot service with its defaults file.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(KESTRUNE_MAN_PAGE ${PROJECT_BINARY_DIR}/share/man/man1/kestrune.1)
set(KESTRUNE_COMPLETION ${PROJECT_BINARY_DIR}/share/bash-completion/completions/kestrune)
add_custom_command(OUTPUT ${KESTRUNE_MAN_PAGE} ${KESTRUNE_COMPLETION}
                   COMMAND Python3::Interpreter ${PROJECT_SOURCE_DIR}/scripts/cli-docs.py
                           $<TARGET_FILE:kestrune-cli> ${KESTRUNE_MAN_PAGE} ${KESTRUNE_COMPLETION}
                   DEPENDS kestrune-cli ${PROJECT_SOURCE_DIR}/scripts/cli-docs.py
                   COMMENT "Writing kestrune(1) and its bash completion from its help")
add_custom_target(kestrune-docs ALL DEPENDS ${KESTRUNE_MAN_PAGE} ${KESTRUNE_COMPLETION})
install(FILES ${KESTRUNE_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${KESTRUNE_COMPLETION} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

set(KESTRUNE_BINARY ${CMAKE_INSTALL_FULL_BINDIR}/kestrune)
set(KESTRUNE_DEFAULTS_FILE ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default/kestrune)
configure_file(${PROJECT_SOURCE_DIR}/service/kestrune-restore.service.in
               ${PROJECT_BINARY_DIR}/kestrune-restore.service @ONLY)
# Units go where the service manager looks: under the prefix, or where a distribution's
# packages put them (Debian 12: /lib/systemd/system).
set(KESTRUNE_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING "Where the boot service is installed")
install(FILES ${PROJECT_BINARY_DIR}/kestrune-restore.service DESTINATION ${KESTRUNE_SYSTEMD_UNIT_DIR})
install(FILES ${PROJECT_SOURCE_DIR}/service/kestrune.default
        DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/default RENAME kestrune)
# What keeps an image's udev and systemd-networkd off the restored devices: they read both
# folders, and Debian 12's own files are in /lib/systemd/network.
set(KESTRUNE_SYSTEMD_NETWORK_DIR lib/systemd/network
    CACHE STRING "Where the udev link policy and the networkd file are installed")
install(FILES ${PROJECT_SOURCE_DIR}/service/kestrune.network
        DESTINATION ${KESTRUNE_SYSTEMD_NETWORK_DIR} RENAME 10-kestrune.network)
install(FILES ${PROJECT_SOURCE_DIR}/service/kestrune.link
        DESTINATION ${KESTRUNE_SYSTEMD_NETWORK_DIR} RENAME 10-kestrune.link)
