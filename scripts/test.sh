#!/usr/bin/env bash
# Sets up and runs the whole test suite: the native build (with a benchmark smoke run),
# AddressSanitizer + UndefinedBehaviorSanitizer (built with clang), and the 32-bit build.
#   scripts/test.sh [native|sanitize|m32]...   (default: all three)
set -euo pipefail
cd "$(dirname "$0")/.."
runs=("$@")
((${#runs[@]})) || runs=(native sanitize m32)

scripts/setup.sh $([[ " ${runs[*]} " == *" m32 "* ]] && echo --m32)
jobs=$(nproc)
passed=0 failed=0

ctest_run() {  # ctest_run BUILD_DIR: runs ctest, adds its counts to the totals
  local log
  log=$(mktemp)
  if (cd "$1" && ctest -j"$jobs" --output-on-failure --timeout 900) 2>&1 | tee "$log" | grep -v -E '^ *(Start|[0-9]+/[0-9]+ Test) '; then :; fi
  local line total bad
  line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -1)
  rm -f "$log"
  if [[ -z $line ]]; then echo "test: no ctest summary from $1"; failed=$((failed + 1)); return; fi
  total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
  bad=$(sed -E 's/.* ([0-9]+) tests? failed.*/\1/' <<<"$line")
  passed=$((passed + total - bad)); failed=$((failed + bad))
}

build() {  # build DIR CMAKE_ARGS...
  local dir=$1; shift
  echo "== configure and build $dir"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -- -j"$jobs" | grep -v -E '^\[[0-9]+/[0-9]+\] ' || true
  [[ -x $dir/tessel_tests ]] || { echo "test: build of $dir failed"; exit 1; }
}

for run in "${runs[@]}"; do
  case $run in
    native)
      build build/native -DCMAKE_BUILD_TYPE=RelWithDebInfo
      ctest_run build/native
      echo "== benchmark smoke run (figures are only meaningful from a quiet machine)"
      build/native/tessel_bench --benchmark_min_time=0.01 --benchmark_filter='sha256' >/dev/null ||
        { echo "test: benchmark run failed"; failed=$((failed + 1)); }
      ;;
    sanitize)
      # clang here, so every run of the suite also proves the code warning-free under both compilers.
      build build/sanitize -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DTESSEL_SANITIZE=ON \
        -DTESSEL_BENCH=OFF -DTESSEL_FUZZ=ON
      ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp \
        UBSAN_OPTIONS=print_stacktrace=1 ctest_run build/sanitize
      echo "== fuzz corpus replay"
      for corpus in fuzz/corpus/*/; do
        name=$(basename "$corpus")
        if build/sanitize/"${name}_fuzz" -runs=0 "$corpus" >/tmp/tessel-fuzz-$name.log 2>&1; then
          passed=$((passed + 1)); echo "fuzz replay $name: $(ls "$corpus" | wc -l) inputs clean"
        else
          failed=$((failed + 1)); echo "fuzz replay $name FAILED:"; tail -30 /tmp/tessel-fuzz-$name.log
        fi
      done
      ;;
    m32)
      deps=$PWD/build-deps/i386
      ssl=()
      if [[ -f $deps/usr/lib/i386-linux-gnu/libcrypto.so ]]; then
        ssl=(-DOPENSSL_INCLUDE_DIR="$deps/usr/include" -DOPENSSL_CRYPTO_LIBRARY="$deps/usr/lib/i386-linux-gnu/libcrypto.so"
             "-DTESSEL_TEST_ENV=OPENSSL_MODULES=$deps/usr/lib/i386-linux-gnu/ossl-modules")
      fi
      build build/m32 -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTESSEL_M32=ON -DTESSEL_BENCH=OFF \
        -DTESSEL_GTEST_ROOT="$PWD/build-deps/gtest32" "${ssl[@]}"
      ctest_run build/m32
      ;;
    *) echo "test: unknown run '$run'"; exit 2 ;;
  esac
done

echo "tests: $passed passed, $failed failed"
((failed == 0))
