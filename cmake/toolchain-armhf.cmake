# Cross-compiles tessel for arm-linux-gnueabihf with Debian's cross compiler; the programs run under
# qemu-user. scripts/setup.sh --cross unpacks the compiler into build-deps/cross (an installed
# arm-linux-gnueabihf-g++-12 is used when that is missing); scripts/test.sh armhf builds and runs the suite.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TESSEL_CROSS_TRIPLE arm-linux-gnueabihf)

get_filename_component(TESSEL_CROSS_PREFIX "${CMAKE_CURRENT_LIST_DIR}/../build-deps/cross/usr" ABSOLUTE)
if(NOT EXISTS "${TESSEL_CROSS_PREFIX}/bin/${TESSEL_CROSS_TRIPLE}-g++-12")
  set(TESSEL_CROSS_PREFIX /usr)
endif()
set(CMAKE_C_COMPILER "${TESSEL_CROSS_PREFIX}/bin/${TESSEL_CROSS_TRIPLE}-gcc-12")
set(CMAKE_CXX_COMPILER "${TESSEL_CROSS_PREFIX}/bin/${TESSEL_CROSS_TRIPLE}-g++-12")

# ctest and gtest_discover_tests start the test program through the emulator; -L points it at the
# target's loader and shared libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;-L;${TESSEL_CROSS_PREFIX}/${TESSEL_CROSS_TRIPLE}")

# Libraries and headers come from the target's root (or from prefixes given on the command line,
# such as the GoogleTest build), programs from the host. The header-only nlohmann-json is the
# host's: its CMake package is found under /usr/share.
set(CMAKE_FIND_ROOT_PATH "${TESSEL_CROSS_PREFIX}/${TESSEL_CROSS_TRIPLE}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
