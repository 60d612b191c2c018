# Toolchain file: from Debian of another architecture for Debian arm64. Needs crossbuild-essential-arm64, qemu-user-static
# for the unit tests, and the libraries of arm64 beside those of this machine (dpkg --add-architecture arm64).
# ./package --arch arm64 makes a root with all of these.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
