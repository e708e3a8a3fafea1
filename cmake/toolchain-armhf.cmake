# Cross-compiles tessel for arm-linux-gnueabihf with Debian's cross compiler; the programs run under
# qemu-user. scripts/setup.sh --cross unpacks the compiler into build-deps/cross (an installed
# arm-linux-gnueabihf-g++-12 is used when that is missing); scripts/test.sh armhf builds and runs the suite.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TESSEL_CROSS_TRIPLE arm-linux-gnueabihf)
set(TESSEL_CROSS_QEMU qemu-arm)
include("${CMAKE_CURRENT_LIST_DIR}/toolchain-cross.cmake")
