# Everything that is installed. Paths inside the files follow the prefix that is chosen when configuring.

include(GNUInstallDirs)

option(KADREL_BUILD_MAN "Build the manual pages (needs rst2man)" OFF)

set(KADREL_EXECUTABLE "${CMAKE_INSTALL_FULL_BINDIR}/kadrel")
set(KADREL_SESSION "${CMAKE_INSTALL_FULL_LIBEXECDIR}/kadrel/kadrel-session")
set(KADREL_SETTINGS "${CMAKE_INSTALL_FULL_SYSCONFDIR}/default/kadrel")

# The shell, systemd and the bus have different rules for quoting.
foreach(path IN ITEMS "${KADREL_EXECUTABLE}" "${KADREL_SESSION}" "${KADREL_SETTINGS}")
  if(NOT path MATCHES "^[-A-Za-z0-9/._+]+$")
    message(FATAL_ERROR "A path of the installation may hold letters, digits and -/._+ only: ${path}")
  endif()
endforeach()

set(KADREL_UNIT_TYPE dbus)
set(KADREL_UNIT_WATCHDOG)
if(KADREL_SYSTEMD)
  set(KADREL_UNIT_TYPE notify)
  set(KADREL_UNIT_WATCHDOG "# Started anew when its threads do not go on. Below 5 s this would end a healthy one.\nWatchdogSec=30s\n")
endif()

foreach(file IN ITEMS kadrel-session kadrel.service com.tolvekserver.Kadrel.service)
  configure_file("data/${file}.in" "${CMAKE_BINARY_DIR}/data/${file}" @ONLY)
endforeach()

install(TARGETS kadrel RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(PROGRAMS "${CMAKE_BINARY_DIR}/data/kadrel-session" DESTINATION "${CMAKE_INSTALL_LIBEXECDIR}/kadrel")
install(FILES data/kadrel.default DESTINATION "${CMAKE_INSTALL_SYSCONFDIR}/default" RENAME kadrel)
install(FILES "${CMAKE_BINARY_DIR}/data/com.tolvekserver.Kadrel.service"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/dbus-1/services")
install(FILES data/com.tolvekserver.Kadrel.Dump.xml DESTINATION "${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces")
# Both belong in lib, not in the library folder of one architecture.
install(FILES "${CMAKE_BINARY_DIR}/data/kadrel.service" DESTINATION lib/systemd/user)
install(FILES data/50-kadrel.conf DESTINATION lib/sysctl.d)
install(FILES data/kadrel.nft DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples")
install(FILES docs/conversions.md docs/dbus.md docs/operations.md docs/recording-format.md docs/reliability.md docs/security.md docs/top.md
  DESTINATION "${CMAKE_INSTALL_DOCDIR}")

set(manual_pages kadrel.1 com.tolvekserver.Kadrel.5)
if(KADREL_BUILD_TOOLS)
  install(TARGETS kadrel-cue RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
  install(FILES data/kadrel-cue.bash-completion
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME kadrel-cue)
  list(APPEND manual_pages kadrel-cue.1)
endif()

if(KADREL_BUILD_MAN)
  find_program(RST2MAN rst2man REQUIRED)
  set(built_pages)
  foreach(page IN LISTS manual_pages)
    add_custom_command(OUTPUT "${CMAKE_BINARY_DIR}/man/${page}"
      COMMAND "${CMAKE_COMMAND}" -E make_directory "${CMAKE_BINARY_DIR}/man"
      COMMAND "${RST2MAN}" --strict "docs/man/${page}.rst" "${CMAKE_BINARY_DIR}/man/${page}"
      WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
      DEPENDS "docs/man/${page}.rst"
      VERBATIM)
    list(APPEND built_pages "${CMAKE_BINARY_DIR}/man/${page}")
    string(REGEX MATCH "[0-9]$" section "${page}")
    install(FILES "${CMAKE_BINARY_DIR}/man/${page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}")
  endforeach()
  add_custom_target(man ALL DEPENDS ${built_pages})
endif()
