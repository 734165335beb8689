#!/usr/bin/env bash
# Runs a command that must exit with STATUS and print a line matching each
# PATTERN (grep -E), on stdout or stderr.
#   expect-output.sh STATUS PATTERN... -- COMMAND [ARGS...]
set -u
status=$1
shift
patterns=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do patterns+=("$1"); shift; done
shift
output=$("$@" 2>&1)
actual=$?
printf '%s\n' "$output"
if [ "$actual" -ne "$status" ]; then
  echo "expect-output: exit status $actual, expected $status" >&2
  exit 1
fi
for pattern in "${patterns[@]}"; do
  if ! printf '%s\n' "$output" | grep -Eq -- "$pattern"; then
    echo "expect-output: no line matches: $pattern" >&2
    exit 1
  fi
done
echo "expect-output: every pattern found"
