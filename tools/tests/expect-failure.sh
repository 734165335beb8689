#!/usr/bin/env bash
# Runs a command that must fail in a controlled way: it must exit with exactly
# STATUS (not crash) and print a line matching PATTERN (grep -E).
#   expect-failure.sh STATUS PATTERN COMMAND [ARGS...]
set -u
status=$1
pattern=$2
shift 2
output=$("$@" 2>&1)
actual=$?
printf '%s\n' "$output"
if [ "$actual" -ne "$status" ]; then
  echo "expect-failure: exit status $actual, expected $status" >&2
  exit 1
fi
if ! printf '%s\n' "$output" | grep -Eq -- "$pattern"; then
  echo "expect-failure: no line matches: $pattern" >&2
  exit 1
fi
echo "expect-failure: failed as expected"
