# Cross build for the MIPS32 little-endian device (glibc), against a Debian
# bookworm mipsel sysroot made by tools/mksysroot.sh.  Target binaries run
# under qemu-user with the sysroot as loader prefix.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)

if(NOT TOOLNEST_SYSROOT)
  set(TOOLNEST_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-mipsel")
endif()
get_filename_component(TOOLNEST_SYSROOT "${TOOLNEST_SYSROOT}" ABSOLUTE)
set(TOOLNEST_SYSROOT "${TOOLNEST_SYSROOT}" CACHE PATH "mipsel sysroot" FORCE)

set(CMAKE_SYSROOT "${TOOLNEST_SYSROOT}")
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-gnu)

set(CMAKE_FIND_ROOT_PATH "${TOOLNEST_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Keep pkg-config away from the build host's libraries.
set(ENV{PKG_CONFIG_LIBDIR} "${TOOLNEST_SYSROOT}/usr/lib/mipsel-linux-gnu/pkgconfig:${TOOLNEST_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TOOLNEST_SYSROOT}")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mipsel-static -L "${TOOLNEST_SYSROOT}")
