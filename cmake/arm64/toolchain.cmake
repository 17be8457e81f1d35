# Cross build of the portable signal path for 64-bit Arm Linux with Debian's
# g++-aarch64-linux-gnu; tests run under user-mode QEMU (qemu-aarch64) with the
# target's libraries from /usr/aarch64-linux-gnu. scripts/test-arm64.sh uses it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/aarch64-linux-gnu)

# The target's own files only: Debian's GoogleTest built for aarch64 (the
# script's prefix, in CMAKE_PREFIX_PATH) and the cross sysroot. No host
# pkg-config files (only arm64 ones, none installed), so no GTK editor: the web
# view is the stub.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig)
