#!/usr/bin/env bash
# Runs one libFuzzer target for a while, growing its corpus.
#   scripts/fuzz.sh NAME [SECONDS]    e.g. scripts/fuzz.sh der 600
# New inputs go to fuzz/out/NAME; copy the interesting small ones into fuzz/corpus/NAME so CI
# replays them. Findings (crash-*, leak-*) are written to fuzz/out/.
set -euo pipefail
cd "$(dirname "$0")/.."
name=$1 seconds=${2:-600}
scripts/setup.sh
cmake -S . -B build/fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTESSEL_SANITIZE=ON -DTESSEL_FUZZ=ON -DTESSEL_TESTS=OFF -DTESSEL_BENCH=OFF -DTESSEL_TOOLS=OFF >/dev/null
cmake --build build/fuzz --target "${name}_fuzz" -j "$(nproc)"
mkdir -p "fuzz/out/$name"
build/fuzz/"${name}_fuzz" -max_total_time="$seconds" -artifact_prefix=fuzz/out/ -print_final_stats=1 \
  "fuzz/out/$name" "fuzz/corpus/$name"
