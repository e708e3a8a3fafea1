#!/usr/bin/env bash
# Installs what building and testing tessel needs on Debian 12, as root. Safe to run again:
# it only calls apt-get when a package is missing.
#   scripts/setup.sh          packages for the native build, tests and benchmarks
#   scripts/setup.sh --m32    also the 32-bit toolchain and a private 32-bit libcrypto (test oracle)
#   scripts/setup.sh --cross  also the MIPS (big-endian) and ARM hard-float cross compilers, qemu-user
#                             and GoogleTest built for both (build-deps/gtest-mips, build-deps/gtest-armhf)
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake ninja-build g++ clang lld libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev libssl-dev
          nlohmann-json3-dev openssl python3 ca-certificates clang-format valgrind pkg-config)
want_m32=0 want_cross=0
for arg in "$@"; do
  case $arg in
    --m32) want_m32=1 ;;
    --cross) want_cross=1 ;;
    *) echo "setup: unknown option '$arg'"; exit 2 ;;
  esac
done
((want_m32)) && packages+=(g++-multilib)
((want_cross)) && packages+=(qemu-user googletest)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  apt-get update -qq || echo "setup: apt-get update reported errors; trying with the lists we have"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if ((want_m32)); then
  # The 32-bit tests use OpenSSL as an oracle too. Its i386 packages are unpacked into a
  # private folder rather than installed, so their version need not match the native libssl3.
  deps=build-deps/i386
  if [[ ! -f $deps/usr/lib/i386-linux-gnu/libcrypto.so ]]; then
    dpkg --print-foreign-architectures | grep -qx i386 || dpkg --add-architecture i386
    apt-get update -qq || true
    rm -rf build-deps/debs && mkdir -p build-deps/debs "$deps"
    if (cd build-deps/debs && apt-get download libssl3:i386 libssl-dev:i386 >/dev/null 2>&1); then
      for d in build-deps/debs/*.deb; do dpkg -x "$d" "$deps"; done
      cp "$deps"/usr/include/i386-linux-gnu/openssl/*.h "$deps"/usr/include/openssl/
    else
      echo "setup: could not fetch 32-bit libcrypto; the 32-bit run will leave out the OpenSSL oracle tests"
    fi
  fi
  # GoogleTest for -m32, built from the sources Debian ships with libgtest-dev.
  if [[ ! -f build-deps/gtest32/lib/libgtest.a ]]; then
    cmake -S /usr/src/googletest -B build-deps/gtest32-build -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_CXX_FLAGS=-m32 -DCMAKE_C_FLAGS=-m32 -DCMAKE_INSTALL_PREFIX="$PWD/build-deps/gtest32" >/dev/null
    cmake --build build-deps/gtest32-build >/dev/null
    cmake --install build-deps/gtest32-build >/dev/null
  fi
fi

if ((want_cross)); then
  # Debian's cross compilers conflict with g++-multilib (which the 32-bit run needs), so they are
  # unpacked into build-deps/cross rather than installed; GCC finds its parts relative to itself.
  for triple in mips-linux-gnu arm-linux-gnueabihf; do
    [[ -x build-deps/cross/usr/bin/$triple-g++-12 && -x build-deps/cross/usr/bin/$triple-as.bin ]] && continue
    arch=${triple%%-*}; [[ $triple == arm-linux-gnueabihf ]] && arch=armhf
    rm -rf build-deps/cross-debs && mkdir -p build-deps/cross-debs build-deps/cross
    (cd build-deps/cross-debs && apt-get download -qq binutils-$triple {cpp,gcc,g++}-12-$triple gcc-12-$triple-base \
      lib{c6,c6-dev,gcc-s1,gcc-12-dev,stdc++6,stdc++-12-dev,atomic1,gomp1}-$arch-cross linux-libc-dev-$arch-cross \
      >/dev/null 2>&1) || { echo "setup: could not fetch the $triple cross compiler"; exit 1; }
    for d in build-deps/cross-debs/*.deb; do dpkg -x "$d" build-deps/cross; done
    # The assembler and linker need their private libbfd and libopcodes, which sit beside them here.
    for tool in build-deps/cross/usr/bin/$triple-*; do
      [[ -f $tool && ! -L $tool && ! -e $tool.bin ]] && readelf -d "$tool" 2>/dev/null | grep -q 'libbfd-' || continue
      mv "$tool" "$tool.bin"
      printf '#!/bin/sh\nhere=$(dirname "$(readlink -f "$0")")\nLD_LIBRARY_PATH=$here/../lib/x86_64-linux-gnu exec "$here/%s.bin" "$@"\n' \
        "${tool##*/}" >"$tool"
      chmod +x "$tool"
    done
    # libc's linker scripts name their libraries by absolute path; by name, ld finds the unpacked ones.
    sed -i -E 's@/usr/'"$triple"'/lib/@@g' build-deps/cross/usr/$triple/lib/libc.so
    rm -rf build-deps/cross-debs
  done
  # GoogleTest for each cross target, built with its toolchain file from Debian's sources.
  for target in mips armhf; do
    if [[ ! -f build-deps/gtest-$target/lib/libgtest.a ]]; then
      cmake -S /usr/src/googletest -B build-deps/gtest-$target-build -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-$target.cmake" \
        -DCMAKE_INSTALL_PREFIX="$PWD/build-deps/gtest-$target" >/dev/null
      cmake --build build-deps/gtest-$target-build >/dev/null
      cmake --install build-deps/gtest-$target-build >/dev/null
    fi
  done
fi
