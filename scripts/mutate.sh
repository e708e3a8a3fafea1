#!/usr/bin/env bash
# Mutation check: applies one small, plausible fault at a time to the library (a flipped
# comparison, a dropped check), rebuilds the test program incrementally, runs it and records
# whether the suite noticed ("killed"). The source file is always restored, on interrupt too.
#   scripts/mutate.sh [BUILD_DIR] [NAME...]   (default build/mutate; default: every mutant)
# Exit status: 0 when every mutant whose pattern was found is killed, 1 otherwise.
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/mutate}
shift $(($# > 0 ? 1 : 0))
only=("$@")
timeout_s=${MUTATE_TIMEOUT:-600}
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-/work} CCACHE_DIR=${CCACHE_DIR:-/work/.ccache}

# name#file#exact text#replacement ('#' separates, since the snippets hold '|'). The snippets are
# small, so that unrelated edits around them do not break the check; each must occur exactly once.
mutants=(
  "der-indefinite#src/asn1/asn1.cpp#if (n == 0 || n > 4 || rest.size() < n)#if (n > 4 || rest.size() < n)"
  "pem-maxpad#src/x509/pem.cpp#pad == 0 || pad > scheme->maxPad || pad > out->size()#pad == 0 || pad > out->size()"
  "gcm-tag-short#src/cipher/gcm.cpp#ct::differenceMask(tag, in + payload, tagLength_)#ct::differenceMask(tag, in + payload, tagLength_ - 1)"
  "host-wildcard-suffix#src/trust/x509_path.cpp#host.substr(dot + 1) == pattern.substr(2)#host.ends_with(pattern.substr(1))"
  "pathlen-top-skipped#src/trust/x509_path.cpp#for (size_t j = 1; j < k; ++j)#for (size_t j = 1; j + 1 < k; ++j)"
  "crl-revoked-ignored#src/trust/x509_path.cpp#if (entry.serial == cert.serial) return true;#if (entry.serial == cert.serial) break;"
  "rsa-null-params#src/keys/rsa.cpp#if (!algo.isAt(asn1::tagNull) || !algo.content.empty())#if (!algo.isAt(asn1::tagNull))"
  "ecdsa-s-range#src/keys/ec_key.cpp#r >= m.n || s >= m.n)#r >= m.n)"
  "pkcs8-zero-pad#src/cipher/padding.h#~ct::isZeroMask(pad) & ~ct::lessThanMask#~ct::lessThanMask"
  "store-crc-header#src/platform/store.cpp#crc32(file.first(kHeaderSize + size)) != crc#crc32(file.first(kHeaderSize)) != crc"
)

backup="" target=""
restore() {
  if [[ -n $backup ]]; then
    # A fresh modification time, so that the build notices the file changed back.
    cp "$backup" "$target" && touch "$target" && rm -f "$backup"
    backup=""
  fi
}
trap 'restore; exit 130' INT TERM
trap restore EXIT

if [[ ! -f $build/build.ninja ]]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
    -DTESSEL_BENCH=OFF >/dev/null || { echo "mutate: cannot configure $build"; exit 2; }
fi
echo "mutate: baseline build and run"
cmake --build "$build" --target tessel_tests -- -j2 >/dev/null || { echo "mutate: baseline does not build"; exit 2; }
if ! timeout "$timeout_s" "$build/tessel_tests" >/dev/null 2>&1; then
  echo "mutate: the unmutated suite fails; fix that first"; exit 2
fi

# apply FILE FROM TO: replaces the one occurrence of FROM; prints why not otherwise.
apply() {
  python3 - "$1" "$2" "$3" <<'EOF'
import sys
path, old, new = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
n = text.count(old)
if n != 1:
    print(f"pattern not found exactly once ({n} times) in {path}: {old}")
    sys.exit(1)
open(path, "w", encoding="utf-8").write(text.replace(old, new))
EOF
}

rows=() survivors=0 missing=0
for m in "${mutants[@]}"; do
  IFS='#' read -r name file from to <<<"$m"
  if ((${#only[@]})) && [[ " ${only[*]} " != *" $name "* ]]; then continue; fi
  target=$file backup=$(mktemp)
  cp -p "$file" "$backup"
  if ! apply "$file" "$from" "$to"; then
    restore; rows+=("$name\t$file\t$from -> $to\tPATTERN NOT FOUND\t-"); missing=$((missing + 1)); continue
  fi
  echo "mutate: $name"
  log=$(mktemp)
  if ! cmake --build "$build" --target tessel_tests -- -j2 >"$log" 2>&1; then
    result="yes (does not build)" by=""
  else
    rc=0
    timeout "$timeout_s" "$build/tessel_tests" >"$log" 2>&1 || rc=$?
    by=$(sed -n -E 's/^\[  FAILED  \] ([^ ,]+)(,.*)? \([0-9]+ ms\)$/\1/p' "$log" | sort -u | head -8 | paste -sd' ')
    if ((rc == 0)); then result="NO"; survivors=$((survivors + 1))
    elif ((rc == 124)); then result="yes (timeout)"
    elif [[ -z $by ]]; then result="yes (exit $rc)"
    else result="yes"; fi
  fi
  rm -f "$log"
  restore
  rows+=("$name\t$file\t$from -> $to\t$result\t${by:--}")
done
# Leave the build matching the restored sources.
cmake --build "$build" --target tessel_tests -- -j2 >/dev/null 2>&1

printf '\n| mutant | file | mutation | killed | by |\n|---|---|---|---|---|\n'
for r in "${rows[@]}"; do
  IFS=$'\t' read -r a b c d e < <(printf '%b\n' "$r")
  printf '| %s | %s | `%s` | %s | %s |\n' "$a" "$b" "${c//|/\\|}" "$d" "$e"
done
echo
echo "mutate: ${#rows[@]} mutants, $survivors survived, $missing patterns not found"
((survivors == 0 && missing == 0))
