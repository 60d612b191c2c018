# Imported target OSSP::uuid++: the object interface of the OSSP uuid library. Its pkg-config file names the C library
# only, so both libraries are looked up here.

find_path(OSSP_UUID_INCLUDE_DIR "uuid++.hh" PATH_SUFFIXES ossp REQUIRED)
find_library(OSSP_UUID_LIBRARY ossp-uuid REQUIRED)
find_library(OSSP_UUIDXX_LIBRARY "ossp-uuid++" REQUIRED)

add_library(OSSP::uuid++ INTERFACE IMPORTED)
set_target_properties(OSSP::uuid++ PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES "${OSSP_UUID_INCLUDE_DIR}"
  INTERFACE_LINK_LIBRARIES "${OSSP_UUIDXX_LIBRARY};${OSSP_UUID_LIBRARY}")
