#!/usr/bin/env bash
# Checks that the C++ files changed since BASE are formatted as .clang-format says, for CI.
#   scripts/check_format.sh [BASE]   (default: the last commit that changed .clang-format)
# Prints clang-format's complaints and exits 1 if any changed file is not formatted; 0 otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || { echo "check_format: clang-format is not installed"; exit 2; }
base=${1:-$(git log --format=%H -1 -- .clang-format)}
[[ -n $base ]] || { echo "check_format: no base commit (is .clang-format committed?)"; exit 2; }
# Files changed since BASE, committed or not, that still exist.
mapfile -t files < <({ git diff --name-only --diff-filter=d "$base" --; git ls-files --others --exclude-standard; } |
                     grep -E '\.(cpp|cc|h|hpp)$' | sort -u)
((${#files[@]})) || { echo "check_format: no C++ file changed since ${base:0:12}"; exit 0; }
if clang-format --dry-run -Werror "${files[@]}"; then
  echo "check_format: ${#files[@]} changed file(s) formatted"
else
  echo "check_format: run clang-format -i on the files above"; exit 1
fi
