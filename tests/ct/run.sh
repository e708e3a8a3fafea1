#!/usr/bin/env bash
# Builds every tests/ct/ct_*.cpp against a built library and runs each under valgrind's memcheck,
# which fails on any branch or memory index that depends on a byte the program marked secret
# (undefined). Each program covers one family of secret operations; its header comment says which.
#   tests/ct/run.sh [BUILD_DIR]     (default build/native)
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build/native}
command -v valgrind >/dev/null || { echo "ct: valgrind is not installed"; exit 1; }
[[ -f $build/libtessel.a ]] || { echo "ct: no $build/libtessel.a"; exit 1; }
failed=0
for src in tests/ct/ct_*.cpp; do
  name=$(basename "$src" .cpp)
  bin=$build/$name
  # Optimised like the library, so the checked code is the code that ships. The library's own
  # source folder is on the include path for checks of internal primitives.
  ${CXX:-c++} -std=c++20 -O2 -g -Wall -Wextra -Werror -Iinclude -Isrc "$src" "$build/libtessel.a" -o "$bin"
  if valgrind --quiet --error-exitcode=1 --track-origins=yes "$bin"; then
    echo "ct: $name: no secret-dependent branch or index"
  else
    echo "ct: $name: FAILED"; failed=1
  fi
done
exit $failed
