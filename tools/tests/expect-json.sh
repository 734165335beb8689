#!/usr/bin/env bash
# Runs a command that writes a JSON report on standard output and checks
# that each jq FILTER is true of it; skipped (exit 77) without jq.
#   expect-json.sh FILTER... -- COMMAND [ARGS...]
set -u
if ! command -v jq > /dev/null; then
  echo "expect-json: jq is not installed" >&2
  exit 77
fi
filters=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do filters+=("$1"); shift; done
shift
json=$("$@")
status=$?
if [ "$status" -ne 0 ]; then
  echo "expect-json: exit status $status" >&2
  exit 1
fi
printf '%s\n' "$json" | jq -c '{panel, warnings, target, q2q_fps, capture_layers: [.capture_layers[]? | {name, buffers}]}'
for filter in "${filters[@]}"; do
  if ! printf '%s\n' "$json" | jq -e "$filter" > /dev/null; then
    echo "expect-json: not true: $filter" >&2
    exit 1
  fi
done
echo "expect-json: every filter holds"
