# Cross build for the gateway: 32-bit ARMv5TE, little-endian, soft float, with Debian's armel
# cross compiler and the armel packages of the archive (multiarch, /usr/lib/arm-linux-gnueabi).
#   cmake -S . -B build-armel -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/armel-toolchain.cmake
# Programs built here run on this machine under qemu user emulation
# (CMAKE_CROSSCOMPILING_EMULATOR), so ctest runs the unit tests as they are.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv5te)

set(CFGD_ARMEL_TRIPLET arm-linux-gnueabi)
set(CMAKE_C_COMPILER ${CFGD_ARMEL_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${CFGD_ARMEL_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${CFGD_ARMEL_TRIPLET})

# The board's core: spelled out rather than left to the compiler's default, so that another
# cross compiler cannot silently build for a newer core or a hardware float unit. The core does
# not promise unaligned accesses, so a cast to a stricter alignment is reported.
set(CFGD_ARMEL_FLAGS "-march=armv5te -marm -mfloat-abi=soft -Wcast-align")
set(CMAKE_C_FLAGS_INIT "${CFGD_ARMEL_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${CFGD_ARMEL_FLAGS}")

# The C++ runtime goes into the programs, so that the C library and iniparser are the only
# shared libraries the device must carry.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libstdc++ -static-libgcc")

# Headers and libraries of the device only: the cross compiler's own tree and Debian's multiarch
# armel directories. Programs (the build tools) still come from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${CFGD_ARMEL_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# No -L prefix: the programs then load the loader, the C library and iniparser of Debian's
# armel packages (/lib/ld-linux.so.3 -> /lib/arm-linux-gnueabi), which belong together. With
# the cross compiler's tree as prefix, its loader would meet the multiarch C library of another
# build, and a forked child (death tests) crashes.
find_program(CFGD_QEMU_ARM qemu-arm)
if(CFGD_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CFGD_QEMU_ARM})
else()
  message(WARNING "qemu-arm not found (package qemu-user): the armel tests cannot run here")
endif()
