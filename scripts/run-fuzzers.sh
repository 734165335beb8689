#!/usr/bin/env bash
# Runs each libFuzzer target of the 'fuzz' preset for a bounded time over a
# scratch copy of its committed seed corpus (so a run never writes into the
# repository), and fails when a fuzzer finds a crash, a leak, a timeout or a
# broken invariant. Crash inputs land in build/fuzz/artifacts/.
#
# Usage: scripts/run-fuzzers.sh [seconds per fuzzer, default 60]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
bin=build/fuzz/fuzz
scratch=build/fuzz/run
artifacts=build/fuzz/artifacts

# target name, corpus directory, extra libFuzzer flags
fuzzers=(
  "pelto_rule_file_fuzzer rule_file -dict=fuzz/rule_file.dict -max_len=8192"
  "pelto_controller_fuzzer controller -max_len=1024"
)

export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

mkdir -p "$artifacts"
status=0
for entry in "${fuzzers[@]}"; do
  read -r name corpus flags <<<"$entry"
  rm -rf "${scratch:?}/$corpus"
  mkdir -p "$scratch/$corpus"
  cp -r "fuzz/corpus/$corpus/." "$scratch/$corpus/"
  echo "run-fuzzers: $name for ${seconds}s"
  # shellcheck disable=SC2086
  if ! "$bin/$name" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$artifacts/$name-" $flags \
      "$scratch/$corpus" >"$scratch/$name.log" 2>&1; then
    echo "run-fuzzers: $name FAILED; see $scratch/$name.log and $artifacts/" >&2
    tail -n 40 "$scratch/$name.log" >&2
    status=1
    continue
  fi
  grep -E '^(Done|stat::number_of_executed_units|stat::average_exec_per_sec|stat::peak_rss_mb)' \
    "$scratch/$name.log" | sed "s/^/run-fuzzers: $name: /"
done
exit $status
