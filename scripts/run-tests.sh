#!/usr/bin/env bash
# The stages of `make test`, in order, each timed, ending with a per-stage
# summary. Stops at the first stage that fails; the summary shows which.
set -uo pipefail
cd "$(dirname "$0")/.."

stages=(check-android-bp check-format check-thread-safety test-gcc test-clang test-asan test-tsan test-arm64)
declare -A result seconds
failed=""
for stage in "${stages[@]}"; do
  if [ -n "$failed" ]; then
    result[$stage]="not run"
    seconds[$stage]="-"
    continue
  fi
  echo "=== make $stage"
  start=$(date +%s)
  if make --no-print-directory "$stage"; then
    result[$stage]="passed"
  else
    result[$stage]="FAILED"
    failed=$stage
  fi
  seconds[$stage]=$(( $(date +%s) - start ))
done

echo
echo "make test, per stage:"
passed=0
for stage in "${stages[@]}"; do
  printf '  %-22s %-8s %6s s\n' "$stage" "${result[$stage]}" "${seconds[$stage]}"
  [ "${result[$stage]}" = passed ] && passed=$((passed + 1))
done
echo "stages: $passed passed, $(( ${#stages[@]} - passed )) failed"
[ -z "$failed" ]
