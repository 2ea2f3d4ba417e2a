# Cross build for a big-endian Linux target (s390x) with Debian's cross
# compiler; test binaries run under qemu-user, so ctest works unchanged.
#   scripts/test bigendian   uses it (GoogleTest is built with it first)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CMAKE_C_COMPILER s390x-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)
set(DHCPSNOOP_CROSS_SYSROOT /usr/s390x-linux-gnu)
# the cross libc's root, and / for the target's multiarch libraries
# (libnftables-dev:s390x in /usr/lib/s390x-linux-gnu)
set(CMAKE_FIND_ROOT_PATH ${DHCPSNOOP_CROSS_SYSROOT} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The cross libc comes first: the target's multiarch libraries (libnftables)
# sit beside a libc of their own that must not be mixed with it.
set(CMAKE_CROSSCOMPILING_EMULATOR env LD_LIBRARY_PATH=${DHCPSNOOP_CROSS_SYSROOT}/lib
    qemu-s390x -L ${DHCPSNOOP_CROSS_SYSROOT})
