# A toolchain for boards with ARM CPUs of Debian's armhf. FWPUSH_CROSS_ROOT has the libraries and
# headers that the programs are built with; trials/boards/build-server makes it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
# Notes about how GCC 6 passed parameters.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES FWPUSH_CROSS_ROOT)
set(CMAKE_FIND_ROOT_PATH ${FWPUSH_CROSS_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
