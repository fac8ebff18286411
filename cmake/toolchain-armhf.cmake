# Debian's cross compiler for 32-bit ARM, with the libraries that scripts/lib/armhf-sysroot unpacks, and an
# emulator that runs what was built: tests are found and run as in a native build.
#
# ORVEXD_ARMHF_SYSROOT: where the libraries are (default build/armhf-sysroot of this tree).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# GCC tells at every call what GCC 7.1 changed about passing arguments.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

set(ORVEXD_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot" CACHE PATH
    "Headers and libraries of the ARM device")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORVEXD_ARMHF_SYSROOT)
get_filename_component(sysroot "${ORVEXD_ARMHF_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${sysroot}/usr/lib/arm-linux-gnueabihf/pkgconfig")
  message(FATAL_ERROR "${sysroot} has no ARM libraries: run scripts/lib/armhf-sysroot first")
endif()
set(CMAKE_SYSROOT "${sysroot}")

# Programs come from this machine, everything else from the device's files.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR} "${sysroot}/usr/lib/arm-linux-gnueabihf/pkgconfig:${sysroot}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${sysroot}")

find_program(ORVEXD_QEMU_ARM NAMES qemu-arm-static qemu-arm)
if(ORVEXD_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${ORVEXD_QEMU_ARM};-L;${sysroot}")
endif()
