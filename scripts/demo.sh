#!/usr/bin/env bash
# Sets up, builds the library and the example program, and runs it on the sample data.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DTESSEL_TESTS=OFF -DTESSEL_BENCH=OFF >/dev/null
cmake --build build/release --target tessel_tool
echo "== tessel digest sha256 examples/*.txt"
build/release/tessel digest sha256 examples/*.txt
echo "== the same files through sha256sum, for comparison"
sha256sum examples/*.txt
echo "== tessel dump examples/leaf.pem"
build/release/tessel dump examples/leaf.pem
roots=/usr/share/ca-certificates/mozilla
echo "== tessel verify examples/site-chain.pem (a real site's chain, as of 2023-04-01, against Debian's ISRG root)"
build/release/tessel verify examples/site-chain.pem --ca "$roots/ISRG_Root_X1.crt" \
  --host certauth.cryptomix.com --time 2023-04-01
echo "== tessel verify examples/broken-chain.pem (the same chain with one signature bit flipped)"
if build/release/tessel verify examples/broken-chain.pem --ca "$roots/ISRG_Root_X1.crt" \
  --host certauth.cryptomix.com --time 2023-04-01; then
  echo "unexpected: the broken chain validated" >&2
  exit 1
fi
