# What cmake/arm64.cmake and cmake/armhf.cmake have in common. They need crossbuild-essential-ARCH, qemu-user-static for the
# unit tests, and the libraries of ARCH beside those of this machine (dpkg --add-architecture ARCH).
# ./package --arch ARCH makes a root with all of these.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KADREL_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KADREL_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KADREL_TRIPLET})
set(PKG_CONFIG_EXECUTABLE ${KADREL_TRIPLET}-pkg-config)
