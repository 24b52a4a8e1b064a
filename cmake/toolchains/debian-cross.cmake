# Shared by the toolchain files for Debian's cross compilers: the including
# file sets TELVO_TRIPLE (the GNU triplet and multiarch folder name),
# TELVO_PROCESSOR and TELVO_QEMU.
#
# Where the target's libraries come from:
#   - TELVO_SYSROOT (cache variable or environment): a folder holding the
#     target's packages unpacked (scripts/sysroot.sh makes one);
#   - otherwise the multiarch -dev packages installed on this machine
#     (dpkg --add-architecture, apt-get install libcurl4-openssl-dev:arm64 ...).
# The C library's headers and start files are the cross compiler's own.
#
# Tests and programs built here run under qemu-user: the emulator runs the
# target's loader and C library from the sysroot (or /) and the cross
# compiler's libstdc++ after them. Mixing the cross package's C library with
# the multiarch one hangs a program at its first thread.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${TELVO_PROCESSOR})
set(CMAKE_C_COMPILER ${TELVO_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TELVO_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${TELVO_TRIPLE})
# GCC notes on armhf that passing some structures changed in GCC 7.1; that
# matters only when linking with code built by GCC 6 or older.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
set(PKG_CONFIG_EXECUTABLE ${TELVO_TRIPLE}-pkg-config CACHE FILEPATH "")

if(NOT TELVO_SYSROOT AND DEFINED ENV{TELVO_SYSROOT})
  set(TELVO_SYSROOT "$ENV{TELVO_SYSROOT}")
endif()
set(TELVO_SYSROOT "${TELVO_SYSROOT}" CACHE PATH "Unpacked target packages (empty: multiarch in /)")
# try_compile projects read this file again and need the same answer.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TELVO_SYSROOT TELVO_TRIPLE TELVO_PROCESSOR TELVO_QEMU)

if(TELVO_SYSROOT)
  set(target_root "${TELVO_SYSROOT}")
  set(CMAKE_FIND_ROOT_PATH "${TELVO_SYSROOT}")
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  # Libraries the found ones need in turn (libcurl's libssl, ...).
  set(link_paths "-Wl,-rpath-link,${TELVO_SYSROOT}/usr/lib/${TELVO_TRIPLE}"
                 "-Wl,-rpath-link,${TELVO_SYSROOT}/lib/${TELVO_TRIPLE}")
  string(JOIN " " link_paths ${link_paths})
  set(CMAKE_EXE_LINKER_FLAGS_INIT "${link_paths}")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "${link_paths}")
  set(run_paths "${TELVO_SYSROOT}/lib/${TELVO_TRIPLE}:${TELVO_SYSROOT}/usr/lib/${TELVO_TRIPLE}")
else()
  set(target_root "/")
  set(run_paths "/lib/${TELVO_TRIPLE}")
endif()

find_program(TELVO_QEMU_PROGRAM ${TELVO_QEMU})
if(TELVO_QEMU_PROGRAM)
  set(CMAKE_CROSSCOMPILING_EMULATOR
      ${TELVO_QEMU_PROGRAM} -L ${target_root}
      -E LD_LIBRARY_PATH=${run_paths}:/usr/${TELVO_TRIPLE}/lib)
endif()
