# Builds for another architecture with Debian's cross compiler, and runs what is built under qemu-user:
# cmake -DCMAKE_TOOLCHAIN_FILE=script/cross-toolchain.cmake -DFWPUSH_ARCH=arm64. Where programs are linked
# with libraries that the compiler does not bring, FWPUSH_SYSROOT has all of them: script/fetch-packages
# makes it. script/test-cross, script/test-boards and script/package --arch use this file.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES FWPUSH_ARCH FWPUSH_SYSROOT)
if(FWPUSH_ARCH STREQUAL arm64)
  set(processor aarch64)
  set(triplet aarch64-linux-gnu)
elseif(FWPUSH_ARCH STREQUAL armhf)
  set(processor arm)
  set(triplet arm-linux-gnueabihf)
elseif(FWPUSH_ARCH STREQUAL s390x)
  set(processor s390x)
  set(triplet s390x-linux-gnu)
else()
  message(FATAL_ERROR "FWPUSH_ARCH is arm64, armhf or s390x")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor})
set(CMAKE_CXX_COMPILER ${triplet}-g++)
# What ARM's calls were like before GCC 7 is no matter of ours.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
if(FWPUSH_SYSROOT)
  set(NETTLE_LIBRARY ${FWPUSH_SYSROOT}/usr/lib/${triplet}/libnettle.so)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${processor};-L;${FWPUSH_SYSROOT})
else()
  # The C library of Debian's cross compiler.
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${processor};-L;/usr/${triplet})
endif()
# The cross compiler itself looks into /usr/include, after the headers of its own C library: the
# libraries that are headers alone are found there. Others are given by name.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
