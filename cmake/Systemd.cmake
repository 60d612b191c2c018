# KADREL_SYSTEMD: whether kadrel tells systemd how it is (needs libsystemd), and its unit expects that. Chosen by whether
# libsystemd is there when the tree is configured for the first time.

find_package(PkgConfig)
if(PkgConfig_FOUND)
  pkg_check_modules(SYSTEMD QUIET IMPORTED_TARGET libsystemd)
endif()
option(KADREL_SYSTEMD "Tell systemd the state of the service (needs libsystemd)" ${SYSTEMD_FOUND})
if(KADREL_SYSTEMD AND NOT SYSTEMD_FOUND)
  message(FATAL_ERROR "KADREL_SYSTEMD needs libsystemd, which pkg-config does not find")
endif()
