#!/usr/bin/env bash
# Checks tessel the way a host project consumes it: installs a shared build into a temporary
# prefix, then builds and runs outside programs three ways (find_package with CMake, pkg-config
# with a plain g++ line, add_subdirectory of this source tree with only a compiler and CMake),
# and checks that the shared library exports the public interface only.
#   scripts/consumer.sh        (build dirs: build/consumer-lib, build/consumer-subdir)
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-/work} CCACHE_DIR=${CCACHE_DIR:-/work/.ccache}
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
jobs=$(nproc)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
fail() { echo "consumer: $*"; exit 1; }

echo "== consumer: install a shared build into a temporary prefix"
# No build type (no optimisation): this checks how the library is packaged, not how fast it runs.
cmake -S . -B build/consumer-lib -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 "${launcher[@]}" -DTESSEL_SHARED=ON \
  -DTESSEL_TESTS=OFF -DTESSEL_BENCH=OFF -DTESSEL_TOOLS=OFF -DCMAKE_INSTALL_PREFIX="$prefix" >/dev/null
cmake --build build/consumer-lib -- -j"$jobs" >/dev/null
cmake --install build/consumer-lib >/dev/null
lib=$(find "$prefix" -name 'libtessel.so.*.*.*' | head -1)
[[ -f $lib ]] || fail "no shared library installed"
for f in include/tessel/tessel.h include/tessel/version.h include/ol/store.h lib*/cmake/tessel/tesselConfig.cmake \
         lib*/cmake/tessel/tesselConfigVersion.cmake lib*/pkgconfig/tessel.pc; do
  compgen -G "$prefix/$f" >/dev/null || fail "$f was not installed"
done
soname=$(readelf -d "$lib" | sed -n -E 's/.*\(SONAME\).*\[(.*)\]/\1/p')
[[ $soname =~ ^libtessel\.so\.[0-9]+\.[0-9]+$ ]] || fail "unexpected SONAME '$soname'"
libdir=$(dirname "$lib")

echo "== consumer: exported symbols"
exported=$(nm -DC --defined-only "$lib")
internal=$(grep -E 'tessel::(detail|ct)::|[^:]ct::' <<<"$exported" || true)
[[ -z $internal ]] || { echo "$internal" | head; fail "internal symbols exported"; }
grep -q 'tessel::versionString()' <<<"$exported" || fail "the public API is not exported"
echo "consumer: $(wc -l <<<"$exported") symbols exported by $soname, none internal"

# check_programs DIR: runs the example programs built in DIR and checks their answers against
# outside tools (coreutils, OpenSSL).
check_programs() {
  local dir=$1 want got
  want="sha256 $(sha256sum examples/fox.txt | cut -d' ' -f1)"
  want+=$'\n'"hmac-sha256 $(openssl dgst -sha256 -hmac k3y -r examples/fox.txt | cut -d' ' -f1)"
  got=$("$dir"/hash_file examples/fox.txt k3y)
  [[ $got == "$want" ]] || fail "$dir/hash_file printed '$got', not '$want'"
  [[ ! -x $dir/gcm_buffer ]] || "$dir"/gcm_buffer >/dev/null || fail "$dir/gcm_buffer failed"
  [[ ! -x $dir/sign_with_key ]] || "$dir"/sign_with_key >/dev/null || fail "$dir/sign_with_key failed"
  local root=/usr/share/ca-certificates/mozilla/ISRG_Root_X1.crt
  if [[ -x $dir/validate_chain && -f $root ]]; then
    # 2023-04-01: the example chain is valid then; the broken copy never is.
    "$dir"/validate_chain examples/site-chain.pem "$root" certauth.cryptomix.com 1680307200 >/dev/null 2>&1 ||
      fail "$dir/validate_chain refused the example chain"
    ! "$dir"/validate_chain examples/broken-chain.pem "$root" certauth.cryptomix.com 1680307200 >/dev/null 2>&1 ||
      fail "$dir/validate_chain accepted the broken chain"
  fi
}

echo "== consumer: find_package (examples/programs)"
cmake -S examples/programs -B "$tmp/find" -G Ninja "${launcher[@]}" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/find" -- -j"$jobs" >/dev/null
LD_LIBRARY_PATH=$libdir check_programs "$tmp/find"

echo "== consumer: pkg-config and a plain g++ line"
mkdir -p "$tmp/pc"
flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs tessel)
# shellcheck disable=SC2086
${CXX:-g++} examples/programs/hash_file.cpp $flags -o "$tmp/pc/hash_file"
LD_LIBRARY_PATH=$libdir check_programs "$tmp/pc"
[[ $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --modversion tessel) == "$(basename "$lib" | sed 's/libtessel.so.//')" ]] ||
  fail "tessel.pc's version is not the library's"

echo "== consumer: add_subdirectory (no C++20 asked for, -Wshadow -Werror on its own target)"
# A compiler and CMake only: GoogleTest, Google Benchmark, nlohmann-json and OpenSSL are hidden.
cmake -S examples/subdir-consumer -B build/consumer-subdir -G Ninja "${launcher[@]}" -DTESSEL_SOURCE="$src" \
  -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON \
  -DCMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON -DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON >/dev/null
cmake --build build/consumer-subdir -- -j"$jobs" >/dev/null
check_programs build/consumer-subdir
echo "consumer: all three ways build and run"
