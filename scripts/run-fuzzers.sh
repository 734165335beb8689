#!/usr/bin/env bash
# Runs the libFuzzer targets of the 'fuzz' preset side by side, one job each,
# for a bounded time over a scratch copy of each committed seed corpus (so a
# run never writes into the repository), and fails when a fuzzer finds a
# crash, a leak, a timeout or a broken invariant. Crash inputs land in
# build/fuzz/artifacts/; copy them into fuzz/corpus/<target>/ to keep them as
# regression cases, which every later run executes first.
#
# Usage: scripts/run-fuzzers.sh [seconds per fuzzer, default 60]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
bin=build/fuzz/fuzz
scratch=build/fuzz/run
artifacts=build/fuzz/artifacts

# target name, corpus directory, extra libFuzzer flags.
# The controller fuzzer keeps its controllers, threads and host across inputs,
# so each input legitimately leaves memory behind: per-input leak checks
# (-detect_leaks) would scan the heap after almost every input and find
# nothing. LeakSanitizer still checks the whole process when it exits.
# -len_control=0 lets inputs grow to -max_len at once instead of creeping up
# from a few dozen bytes.
fuzzers=(
  "pelto_rule_file_fuzzer rule_file -dict=fuzz/rule_file.dict -max_len=8192"
  "pelto_controller_fuzzer controller -max_len=4096 -len_control=0 -detect_leaks=0"
  "pelto_perfetto_fuzzer perfetto -max_len=16384"
  "pelto_capture_fuzzer capture -max_len=32768"
)

# A smaller quarantine than ASan's 256 MB keeps freed memory poisoned for the
# last 16 MB of frees (many inputs' worth) and lets the allocator reuse warm
# pages, instead of faulting in new ones on most allocations.
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:quarantine_size_mb=16}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

mkdir -p "$artifacts"
pids=()
names=()
for entry in "${fuzzers[@]}"; do
  read -r name corpus flags <<<"$entry"
  rm -rf "${scratch:?}/$corpus"
  mkdir -p "$scratch/$corpus"
  cp -r "fuzz/corpus/$corpus/." "$scratch/$corpus/"
  echo "run-fuzzers: $name for ${seconds}s"
  # shellcheck disable=SC2086
  "$bin/$name" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$artifacts/$name-" $flags \
      "$scratch/$corpus" >"$scratch/$name.log" 2>&1 &
  pids+=("$!")
  names+=("$name")
done

status=0
for i in "${!pids[@]}"; do
  name=${names[$i]}
  if ! wait "${pids[$i]}"; then
    echo "run-fuzzers: $name FAILED; see $scratch/$name.log and $artifacts/" >&2
    tail -n 40 "$scratch/$name.log" >&2
    status=1
    continue
  fi
  grep -E '^(#[0-9]+[[:space:]]+DONE|Done|stat::number_of_executed_units|stat::average_exec_per_sec|stat::peak_rss_mb)' \
    "$scratch/$name.log" | sed "s/^/run-fuzzers: $name: /"
done
exit $status
