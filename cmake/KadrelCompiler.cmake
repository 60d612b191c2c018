# Compiler settings common to every target of this tree: the language, the warnings (all of them errors), the
# sanitizers and coverage of the presets, and paths that do not depend on where the tree was checked out.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_AUTOMOC_PATH_PREFIX ON)

set(KADREL_SANITIZE "" CACHE STRING "Value of -fsanitize= for every target")
option(KADREL_COVERAGE "Instrument for gcov" OFF)

# Sanitizer builds: enough optimisation to run the service tests briskly, asserts on, usable stacks.
# Plain variables: project() has put empty ones of these names into the cache.
set(CMAKE_CXX_FLAGS_SANITIZE "-O1 -g1 -fno-omit-frame-pointer")

# Times beyond 2038 also on systems of 32 bits. Debian 13 has them by itself, its libraries included. Where they are the choice of
# a program, as in Debian 12, the one library here that passes times as C structures is libpcap.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("#include <ctime>\nstatic_assert(sizeof(time_t) >= 8);\nint main() {}" KADREL_SYSTEM_TIME_64)

add_library(kadrel_compiler INTERFACE)
target_compile_options(kadrel_compiler INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
  -fstack-protector-strong
  "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")
target_compile_definitions(kadrel_compiler INTERFACE
  _FILE_OFFSET_BITS=64
  QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII
  $<$<NOT:$<BOOL:${KADREL_SYSTEM_TIME_64}>>:_TIME_BITS=64>
  $<$<NOT:$<BOOL:${KADREL_SYSTEM_TIME_64}>>:KADREL_CHOSE_TIME_BITS>
  $<$<CONFIG:RelWithDebInfo>:_FORTIFY_SOURCE=2>)

# kadrel_uses_libpcap(source...)
# Sources of this folder that include cue/Libpcap.h: their timeval is that of the library.
function(kadrel_uses_libpcap)
  if(NOT KADREL_SYSTEM_TIME_64)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -U_TIME_BITS SKIP_PRECOMPILE_HEADERS ON)
  endif()
endfunction()

if(KADREL_SANITIZE)
  # GCC 12 takes the instrumented std::regex for uninitialised (its bug 105562); the other builds keep the warning.
  target_compile_options(kadrel_compiler INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_compile_options(kadrel_compiler INTERFACE -fsanitize=${KADREL_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(kadrel_compiler INTERFACE -fsanitize=${KADREL_SANITIZE})
endif()
if(KADREL_COVERAGE)
  # Counters are raised from several threads.
  target_compile_options(kadrel_compiler INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(kadrel_compiler INTERFACE --coverage)
endif()
