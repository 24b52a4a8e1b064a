# 32-bit ARMv7 with hard float (armhf) with Debian's cross compiler
# (crossbuild-essential-armhf):
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake
set(TELVO_TRIPLE arm-linux-gnueabihf)
set(TELVO_PROCESSOR arm)
set(TELVO_DEB_ARCHITECTURE armhf)
set(TELVO_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
