#!/usr/bin/env bash
# Installs what building and testing tessel needs on Debian 12, as root. Safe to run again:
# it only calls apt-get when a package is missing.
#   scripts/setup.sh          packages for the native build, tests and benchmarks
#   scripts/setup.sh --m32    also the 32-bit toolchain and a private 32-bit libcrypto (test oracle)
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake ninja-build g++ clang lld libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev libssl-dev
          nlohmann-json3-dev openssl python3 ca-certificates clang-format valgrind pkg-config)
[[ "${1:-}" == "--m32" ]] && packages+=(g++-multilib)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  apt-get update -qq || echo "setup: apt-get update reported errors; trying with the lists we have"
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if [[ "${1:-}" == "--m32" ]]; then
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
