#!/usr/bin/env bash
# Builds tests/ct/ct_check.cpp against a built library and runs it under valgrind's memcheck,
# which fails on any branch or index that depends on a secret byte of the X25519 ladder or of
# Ed25519 key derivation and signing, or of ML-KEM-768 decapsulation.
#   tests/ct/run.sh [BUILD_DIR]     (default build/native)
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build/native}
command -v valgrind >/dev/null || { echo "ct: valgrind is not installed"; exit 1; }
[[ -f $build/libtessel.a ]] || { echo "ct: no $build/libtessel.a"; exit 1; }
bin=$build/ct_check
# Optimised like the library, so the checked code is the code that ships.
${CXX:-c++} -std=c++20 -O2 -g -Wall -Wextra -Werror -Iinclude tests/ct/ct_check.cpp "$build/libtessel.a" -o "$bin"
valgrind --quiet --error-exitcode=1 --track-origins=yes "$bin"
echo "ct: no secret-dependent branch or index"
