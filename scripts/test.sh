#!/usr/bin/env bash
# Sets up and runs the whole test suite: the native build (with a benchmark smoke run),
# AddressSanitizer + UndefinedBehaviorSanitizer (built with clang), the 32-bit build, the
# kernel run (static programs inside a QEMU guest whose kernel has AF_ALG); on request also the
# cross-built suites for big-endian MIPS and 32-bit ARM under qemu-user, and the ThreadSanitizer
# run (not yet in the default list: their full runs have still to be timed against CI's budget).
#   scripts/test.sh [native|sanitize|m32|kernel|mips|armhf|tsan]...   (default: the first four)
set -euo pipefail
cd "$(dirname "$0")/.."
runs=("$@")
((${#runs[@]})) || runs=(native sanitize m32 kernel)

# The kernel run also needs the 32-bit build: the appliance's programs are 32-bit.
scripts/setup.sh $([[ " ${runs[*]} " == *" m32 "* || " ${runs[*]} " == *" kernel "* ]] && echo --m32) \
  $([[ " ${runs[*]} " == *" mips "* || " ${runs[*]} " == *" armhf "* ]] && echo --cross)
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

guest_run() {  # guest_run [run-guest.sh options] BINARY [ARGS...]: counts its PASS/FAIL lines
  local log rc=0 pass bad
  log=$(mktemp)
  echo "== guest run: $*"
  tests/kernel/run-guest.sh "$@" 2>&1 | tee "$log" || rc=$?
  # The probe prints PASS/FAIL lines; a GoogleTest binary prints its own summary counts.
  pass=$(($(grep -c -E '^PASS ' "$log" || true) +
          $(sed -n -E 's/^\[  PASSED  \] ([0-9]+) tests?.*/\1/p' "$log" | tail -1 | grep . || echo 0)))
  # (each failed test has one result line with its time, in brief mode too)
  bad=$(($(grep -c -E '^FAIL ' "$log" || true) + $(grep -c -E '^\[  FAILED  \] [^ ]+ \([0-9]+ ms\)$' "$log" || true)))
  rm -f "$log"
  # A failed run with no FAIL line (no boot, no answer, a crash) still counts as a failure.
  ((rc == 0 || bad > 0)) || bad=1
  passed=$((passed + pass)); failed=$((failed + bad))
}

# m32_args: the 32-bit build's configuration, shared by the m32 and kernel runs so that neither
# makes the other rebuild. Its static programs for the kernel run come from the same objects.
m32_args() {
  local deps=$PWD/build-deps/i386
  m32=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTESSEL_M32=ON -DTESSEL_BENCH=OFF -DTESSEL_KERNEL_TESTS=ON
       -DTESSEL_GTEST_ROOT="$PWD/build-deps/gtest32")
  if [[ -f $deps/usr/lib/i386-linux-gnu/libcrypto.so ]]; then
    m32+=(-DOPENSSL_INCLUDE_DIR="$deps/usr/include" -DOPENSSL_CRYPTO_LIBRARY="$deps/usr/lib/i386-linux-gnu/libcrypto.so"
          "-DTESSEL_TEST_ENV=OPENSSL_MODULES=$deps/usr/lib/i386-linux-gnu/ossl-modules")
  fi
}

# build_targets DIR TARGET...: builds the named targets of an already configured DIR.
build_targets() {
  local dir=$1; shift
  echo "== build $dir ($*)"
  cmake --build "$dir" --target "$@" -- -j"$jobs" 2>&1 |
    grep -v -E '^\[[0-9]+/[0-9]+\] |statically linked applications requires at runtime|^/usr/bin/ld: .*: in function' || true
  for t in "$@"; do
    [[ -x $dir/$t ]] || { echo "test: build of $dir/$t failed"; exit 1; }
  done
}

build() {  # build DIR CMAKE_ARGS...
  local dir=$1; shift
  echo "== configure and build $dir"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -- -j"$jobs" 2>&1 |
    grep -v -E '^\[[0-9]+/[0-9]+\] |statically linked applications requires at runtime|^/usr/bin/ld: .*: in function' || true
  [[ -x $dir/tessel_tests ]] || { echo "test: build of $dir failed"; exit 1; }
}

for run in "${runs[@]}"; do
  case $run in
    native)
      # With the kernel run's static programs: they are linked from the same objects.
      build build/native -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTESSEL_KERNEL_TESTS=ON
      ctest_run build/native
      echo "== constant-time check (valgrind memcheck, secrets marked undefined)"
      if tests/ct/run.sh build/native; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
      echo "== consumer check (install, find_package, pkg-config, add_subdirectory, exported symbols)"
      if scripts/consumer.sh; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
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
      m32_args
      build build/m32 "${m32[@]}"
      ctest_run build/m32
      ;;
    kernel)
      # The build machine's kernel may lack AF_ALG, so these programs run in a QEMU guest
      # (tests/kernel/run-guest.sh); they are linked statically because the guest has no libraries.
      # The library's own Kernel* tests join in (the test program linked statically, from the
      # native and 32-bit builds' objects) as soon as a test file defines one.
      kernel_suites=$(grep -l -E '^TEST(_F|_P)?\(Kernel' tests/*.cpp || true)
      targets=(tessel_kernel_probe)
      [[ -n $kernel_suites ]] && targets+=(tessel_tests_static)
      vectors=${TESSEL_VECTORS:-$PWD/../shared/vectors}
      files=()
      [[ -d $vectors ]] && files=(--file "$vectors=/vectors" --env TESSEL_VECTORS=/vectors)
      cmake -S . -B build/native -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTESSEL_KERNEL_TESTS=ON >/dev/null
      build_targets build/native "${targets[@]}"
      guest_run build/native/tessel_kernel_probe
      [[ -n $kernel_suites ]] && guest_run "${files[@]}" build/native/tessel_tests_static --gtest_filter='Kernel*' --gtest_brief=1
      # The appliance is 32-bit: its programs reach AF_ALG through the kernel's compat calls.
      if dpkg-query -W -f='${Status}' g++-multilib 2>/dev/null | grep -q "install ok installed"; then
        m32_args
        cmake -S . -B build/m32 -G Ninja "${m32[@]}" >/dev/null
        build_targets build/m32 "${targets[@]}"
        guest_run build/m32/tessel_kernel_probe
        [[ -n $kernel_suites ]] && guest_run "${files[@]}" build/m32/tessel_tests_static --gtest_filter='Kernel*' --gtest_brief=1
      else
        echo "== no 32-bit toolchain (scripts/setup.sh --m32 installs it): 32-bit kernel run left out"
      fi
      ;;
    mips|armhf)
      # Cross-built with cmake/toolchain-$run.cmake; ctest starts every test through qemu-user.
      # Without a target libcrypto the OpenSSL oracle tests are compiled out, and the files that
      # need libcrypto throughout are left out; the tool's tests skip themselves (TESSEL_TOOLS=OFF:
      # the shell they use cannot start a foreign program).
      build build/$run -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-$run.cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTESSEL_BENCH=OFF -DTESSEL_TOOLS=OFF -DTESSEL_GTEST_ROOT="$PWD/build-deps/gtest-$run" \
        '-DTESSEL_TEST_EXCLUDE=/(cms_enveloped|key_agreement|record_ct|rsa_encryption|signature|x509_build)_test\.cpp$'
      ctest_run build/$run
      ;;
    tsan)
      # ThreadSanitizer (clang) over the library and the threads test alone, so it stays quick:
      # the library is built by CMake, the test program from tests/threads_test.cpp and the
      # test helpers. Any report stops the program (halt_on_error) and fails the run.
      dir=build/tsan
      echo "== configure and build $dir"
      cmake -S . -B $dir -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_CXX_FLAGS=-fsanitize=thread -DTESSEL_TESTS=OFF -DTESSEL_TOOLS=OFF -DTESSEL_BENCH=OFF >/dev/null
      cmake --build $dir --target libtessel.a -- -j"$jobs" 2>&1 | grep -v -E '^\[[0-9]+/[0-9]+\] ' || true
      [[ -f $dir/libtessel.a ]] || { echo "test: build of $dir/libtessel.a failed"; exit 1; }
      launcher=$(sed -n 's/^CMAKE_CXX_COMPILER_LAUNCHER:[A-Z]*=//p' $dir/CMakeCache.txt)
      for src in threads_test support; do
        $launcher clang++ -std=c++20 -O1 -g -fsanitize=thread -Wall -Wextra -Werror -Iinclude -Isrc -Itests \
          -DTESSEL_SOURCE_DIR="\"$PWD\"" -DTESSEL_DEFAULT_VECTORS="\"$PWD/../shared/vectors\"" -DTESSEL_TOOL_PATH='""' \
          -c tests/$src.cpp -o $dir/$src.o
      done
      clang++ -fsanitize=thread $dir/threads_test.o $dir/support.o $dir/libtessel.a -lgtest -lgtest_main -pthread \
        -o $dir/tessel_threads_test
      log=$(mktemp) rc=0
      TSAN_OPTIONS=halt_on_error=1 $dir/tessel_threads_test --gtest_filter='Threads.*' 2>&1 | tee "$log" || rc=$?
      pass=$(sed -n -E 's/^\[  PASSED  \] ([0-9]+) tests?.*/\1/p' "$log" | tail -1 | grep . || echo 0)
      bad=$(grep -c -E '^\[  FAILED  \] [^ ]+ \([0-9]+ ms\)$' "$log" || true)
      rm -f "$log"
      ((rc == 0 || bad > 0)) || bad=1  # a ThreadSanitizer report or a crash
      passed=$((passed + pass)); failed=$((failed + bad))
      ;;
    *) echo "test: unknown run '$run'"; exit 2 ;;
  esac
done

echo "tests: $passed passed, $failed failed"
((failed == 0))
