# 64-bit ARM (arm64) with Debian's cross compiler (crossbuild-essential-arm64):
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
set(TELVO_TRIPLE aarch64-linux-gnu)
set(TELVO_PROCESSOR aarch64)
set(TELVO_DEB_ARCHITECTURE arm64)
set(TELVO_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
