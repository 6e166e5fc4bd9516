# SPDX-License-Identifier: Apache-2.0
# Toolchain for a controller build: Debian's cross compiler for MTD_CROSS_TRIPLET,
# with the target's libraries and headers taken only from MTD_CROSS_SYSROOT (made
# by scripts/sysroot.sh), never from the host. scripts/cross.sh passes both; they
# are kept for try_compile and later re-runs of CMake.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MTD_CROSS_TRIPLET MTD_CROSS_SYSROOT MTD_CROSS_CPU)
if(NOT MTD_CROSS_TRIPLET OR NOT MTD_CROSS_SYSROOT OR NOT MTD_CROSS_CPU)
  message(FATAL_ERROR "cross: MTD_CROSS_TRIPLET, MTD_CROSS_CPU and MTD_CROSS_SYSROOT must be set")
endif()
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${MTD_CROSS_CPU})
set(CMAKE_C_COMPILER ${MTD_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${MTD_CROSS_TRIPLET}-g++)
set(CMAKE_SYSROOT ${MTD_CROSS_SYSROOT})
# GCC's note on 32-bit ARM that the passing of some arguments changed in GCC 7.1
# concerns mixing with code built by GCC 6 or older, which nothing here is.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config reads the target's .pc files and prefixes their paths with the sysroot
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${MTD_CROSS_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    "${MTD_CROSS_SYSROOT}/usr/lib/${MTD_CROSS_TRIPLET}/pkgconfig:${MTD_CROSS_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
# The libraries' own dependencies (libssl behind libcurl, ...) are found by the
# linker in the sysroot too; qemu loads the target's shared libraries from there.
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
       " -Wl,-rpath-link,${MTD_CROSS_SYSROOT}/lib/${MTD_CROSS_TRIPLET}"
       " -Wl,-rpath-link,${MTD_CROSS_SYSROOT}/usr/lib/${MTD_CROSS_TRIPLET}")
set(CMAKE_CROSSCOMPILING_EMULATOR ${MTD_CROSS_QEMU} -L ${MTD_CROSS_SYSROOT})
