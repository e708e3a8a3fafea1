# The body shared by the cross toolchain files: they set CMAKE_SYSTEM_PROCESSOR,
# TESSEL_CROSS_TRIPLE (the Debian triple) and TESSEL_CROSS_QEMU (the qemu-user program) and
# include this file.
set(CMAKE_SYSTEM_NAME Linux)

get_filename_component(TESSEL_CROSS_PREFIX "${CMAKE_CURRENT_LIST_DIR}/../build-deps/cross/usr" ABSOLUTE)
if(NOT EXISTS "${TESSEL_CROSS_PREFIX}/bin/${TESSEL_CROSS_TRIPLE}-g++-12")
  set(TESSEL_CROSS_PREFIX /usr)
endif()
set(CMAKE_C_COMPILER "${TESSEL_CROSS_PREFIX}/bin/${TESSEL_CROSS_TRIPLE}-gcc-12")
set(CMAKE_CXX_COMPILER "${TESSEL_CROSS_PREFIX}/bin/${TESSEL_CROSS_TRIPLE}-g++-12")

# ctest and gtest_discover_tests start the test program through the emulator; -L points it at the
# target's loader and shared libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR "${TESSEL_CROSS_QEMU};-L;${TESSEL_CROSS_PREFIX}/${TESSEL_CROSS_TRIPLE}")

# Libraries and headers come from the target's root (or from prefixes given on the command line,
# such as the GoogleTest build), programs from the host. The header-only nlohmann-json is the
# host's: its CMake package is found under /usr/share.
set(CMAKE_FIND_ROOT_PATH "${TESSEL_CROSS_PREFIX}/${TESSEL_CROSS_TRIPLE}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
