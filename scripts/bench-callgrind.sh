#!/usr/bin/env bash
# Instruction counts of the per-frame paths under callgrind: each operation of
# the benchmark program's callgrind driver runs a fixed number of times, and
# only the calls of its "measured" function are collected, so the count per
# call is repeatable from run to run. Prints tables of instructions per call.
# Usage: scripts/bench-callgrind.sh [path/to/pelto_bench]
set -euo pipefail
cd "$(dirname "$0")/.."

bench=${1:-build/default/bench/pelto_bench}
calls=${CALLS:-1000}
if ! command -v valgrind >/dev/null; then
  echo "bench-callgrind: valgrind is not installed (apt-get install valgrind)" >&2
  exit 1
fi

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# Instructions per call of an operation. With a pattern, only those of the
# function it names, as called from inside the operation. Further arguments
# go to the driver.
count() {
  local operation=$1 pattern=${2:-} file
  file=$(mktemp -p "$out")
  shift $(($# < 2 ? $# : 2))
  [ -n "$pattern" ] || pattern="android::bench::*measured${operation^}(*"
  valgrind --tool=callgrind --callgrind-out-file="$file.out" \
    --toggle-collect="$pattern" "$bench" --callgrind="$operation" --calls="$calls" "$@" \
    >/dev/null 2>"$file.log"
  awk -v calls="$calls" '/^summary:/ { printf "%d\n", ($2 + calls / 2) / calls }' "$file.out"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

printf '| operation | instructions per call | floor | ratio |\n|---|---:|---:|---:|\n'
for pair in "compositeList:list-mode composite, (256, 64)" \
            "compositeApi:API-mode composite, 64 visible" \
            "transaction:setTransactionState, batch of 1, active target"; do
  operation=${pair%%:*}
  library=$(count "$operation")
  floor=$(count "${operation}Floor")
  printf '| %s | %d | %d | %s |\n' "${pair#*:}" "$library" "$floor" "$(ratio "$library" "$floor")"
done

# The part of a list-mode composite that runs under mLayerMutex: sorting the
# visited layers by their records and applying the rules. The host's
# traversal runs before, with no lock held.
whole=$(count compositeList)
sorting=$(count compositeList '*PeltoController::classifyVisitsLocked(*')
rules=$(count compositeList '*PeltoController::applyRulesLocked(*')
held=$((sorting + rules))
printf '\nlist-mode composite (256, 64): %d of %d instructions per call (%s) sort the visits and\n' \
  "$held" "$whole" "$(ratio "$((held * 100))" "$whole")%"
echo 'apply the rules under mLayerMutex'

small=$(count compositeList "" --scene=64,16)
large=$(count compositeList "" --scene=1024,256)
printf '\nlist-mode composite: %d instructions at (64, 16), %d at (1024, 256): ratio %s\n' \
  "$small" "$large" "$(ratio "$large" "$small")"
