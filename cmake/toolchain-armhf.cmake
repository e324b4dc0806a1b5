# Cross build for 32-bit ARM Linux (armhf) with Debian's arm-linux-gnueabihf compilers, against
# the sysroot that scripts/armhf-sysroot unpacks from Debian's armhf packages. Programs built
# here run on the build machine under qemu-arm (user mode), which CTest uses as the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT PMX_ARMHF_SYSROOT)
  get_filename_component(PMX_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot" ABSOLUTE)
endif()
if(NOT EXISTS "${PMX_ARMHF_SYSROOT}/.pmx-sysroot")
  message(FATAL_ERROR "no armhf sysroot at ${PMX_ARMHF_SYSROOT}: run scripts/armhf-sysroot first")
endif()
set(CMAKE_SYSROOT "${PMX_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${PMX_ARMHF_SYSROOT}")
# Libraries and headers come from the sysroot; programs run at build time (protoc-c) from the host.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${PMX_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${PMX_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${PMX_ARMHF_SYSROOT}/usr/share/pkgconfig")

find_program(PMX_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${PMX_QEMU_ARM};-L;${PMX_ARMHF_SYSROOT}")
