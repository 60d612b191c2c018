# Toolchain file: from Debian of another architecture for Debian armhf, boards of 32 bits. What it needs says
# cmake/foreign.cmake.

set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(KADREL_TRIPLET arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static)
include("${CMAKE_CURRENT_LIST_DIR}/foreign.cmake")
