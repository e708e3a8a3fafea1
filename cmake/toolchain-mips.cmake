# Cross-compiles tessel for mips-linux-gnu with Debian's cross compiler; the programs run under
# qemu-user. scripts/setup.sh --cross unpacks the compiler into build-deps/cross (an installed
# mips-linux-gnu-g++-12 is used when that is missing); scripts/test.sh mips builds and runs the suite.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(TESSEL_CROSS_TRIPLE mips-linux-gnu)
set(TESSEL_CROSS_QEMU qemu-mips)
include("${CMAKE_CURRENT_LIST_DIR}/toolchain-cross.cmake")
