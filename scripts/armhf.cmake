# Debian's 32-bit ARM with hardware floating point, out of the packages in a sysroot: scripts/cross makes it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Compilers before GCC 7 passed some classes in another way; none of them has a part here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

set(BRIDGE_SYSROOT ${CMAKE_BINARY_DIR}/sysroot CACHE PATH "The system that the programs are built for")
# The projects that try the compiler out have build folders of their own.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES BRIDGE_SYSROOT)
set(CMAKE_SYSROOT ${BRIDGE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH ${BRIDGE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${BRIDGE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${BRIDGE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${BRIDGE_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/emulated ${BRIDGE_SYSROOT}/../emulated)
