#!/usr/bin/env bash
# Instruction counts of the per-frame paths under callgrind: each operation of
# the benchmark program's callgrind driver runs a fixed number of times, and
# only the calls of its "measured" function are collected, so the count per
# call is repeatable from run to run. Prints a table of instructions per call.
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

# Prints the instructions collected in the measured function, or in the
# function named by a second pattern as called from inside it.
count() {
  local operation=$1 pattern=${2:-"android::bench::*measured${1^}(*"}
  valgrind --tool=callgrind --callgrind-out-file="$out/$operation.out" \
    --toggle-collect="$pattern" "$bench" --callgrind="$operation" --calls="$calls" \
    >/dev/null 2>"$out/$operation.log"
  awk '/^summary:/ { print $2 }' "$out/$operation.out"
}

per_call() { echo $(( ($1 + calls / 2) / calls )); }

printf '| operation | instructions per call | floor | ratio |\n|---|---:|---:|---:|\n'
for pair in "compositeList:list-mode composite, (256, 64)" \
            "compositeApi:API-mode composite, 64 visible" \
            "transaction:setTransactionState, batch of 1, active target"; do
  operation=${pair%%:*}
  label=${pair#*:}
  library=$(per_call "$(count "$operation")")
  floor=$(per_call "$(count "${operation}Floor")")
  ratio=$(awk -v a="$library" -v b="$floor" 'BEGIN { printf "%.2f", a / b }')
  printf '| %s | %d | %d | %s |\n' "$label" "$library" "$floor" "$ratio"
done

# The part of a list-mode composite that runs under mLayerMutex: the host's
# traversal, with the controller's visitor, as called from compositeList.
held=$(per_call "$(count compositeList \
  '*LeanCompositor::traverseVisibleBufferLayers() const::{lambda*}>::_M_invoke(*')")
printf '\nlist-mode composite (256, 64): %d instructions per call inside the traversal' "$held"
echo ' (under mLayerMutex)'
