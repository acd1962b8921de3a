#  Tool chain file: builds for arm64 (AArch64, little-endian) with Debian's cross compiler, and runs the programs of the
#  build with qemu-user. scripts/arm64 uses it.
#
#      cmake --toolchain cmake/aarch64.cmake -DADDRPUBD_SYSROOT=FOLDER ...
#
#  FOLDER contains the headers and libraries of an arm64 Debian.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

#  The projects of CMake's compiler checks also read this file, so they also need the variable ADDRPUBD_SYSROOT.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ADDRPUBD_SYSROOT)
set(CMAKE_SYSROOT ${ADDRPUBD_SYSROOT})

#  CMake searches libraries and headers in the arm64 Debian, and programs on this machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

#  LD_PRELOAD is meant for the emulated program. It does not affect the static build of qemu-user.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static -L ${ADDRPUBD_SYSROOT})
