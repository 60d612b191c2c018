# Toolchain file: from Debian of another architecture for Debian arm64. What it needs says cmake/foreign.cmake.

set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(KADREL_TRIPLET aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
include("${CMAKE_CURRENT_LIST_DIR}/foreign.cmake")
