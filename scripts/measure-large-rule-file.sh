#!/usr/bin/env bash
# Measures how long the rule-file loader takes on a 10 MiB rule file and how
# much memory it needs. Generates the file (the same shape as the hostile-file
# test's: targets with one ignored name each, until 10 MiB), builds a small
# program from config/*.cpp with g++ -O2 (the library's optimisation level),
# and runs it under /usr/bin/time -v MEASURE_RUNS times (default 3) with info
# lines dropped and once with them written to stderr (discarded). Also runs it
# on a one-target file, for the process's memory without a large configuration.
# Output in build/measure/.
set -euo pipefail
cd "$(dirname "$0")/.."

out=build/measure
mkdir -p "$out"

python3 - "$out/large.json" "$out/small.json" <<'PY'
import sys
size = 10 * 1024 * 1024
head = ('{"general_rule": {"on_when_has_other_layer": true, "use_adaptive_timeout": true}, '
        '"exception_rule": [{"name": "d", "always_true": 1}], "target_layers": [')
parts = [head]
length = len(head)
i = 0
while length < size:
    part = '{"name": "layer-%d", "ignore_names": ["ignored-%d"]}' % (i, i)
    part = part if i == 0 else ', ' + part
    parts.append(part)
    length += len(part)
    i += 1
parts.append(']}')
with open(sys.argv[1], 'w') as f:
    f.write(''.join(parts))
with open(sys.argv[2], 'w') as f:
    f.write(head + '{"name": "layer-0", "ignore_names": ["ignored-0"]}]}')
print('measure: %s: %d bytes, %d targets' % (sys.argv[1], length + 2, i))
PY

cat >"$out/load_rule_file.cpp" <<'CPP'
// Loads the rule file named by its first argument once, dumps the
// configuration, and prints the time each took and the process's peak resident
// size before and after the load.
//   load_rule_file FILE [--quiet]
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include <android/log.h>

#include "config/PeltoConfig.h"

static long maxRssKb() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE [--quiet]\n", argv[0]);
        return 2;
    }
    if (argc > 2 && std::strcmp(argv[2], "--quiet") == 0) {
        __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    }
    const long rssBefore = maxRssKb();
    const auto start = std::chrono::steady_clock::now();
    android::PeltoConfig config(argv[1]);
    const auto end = std::chrono::steady_clock::now();
    const long rssAfter = maxRssKb();
    std::string dump;
    config.dump(dump);
    const auto dumped = std::chrono::steady_clock::now();
    std::printf("load_ms=%.1f max_rss_before_kb=%ld max_rss_after_kb=%ld succeeded=%d "
                "dump_ms=%.1f dump_bytes=%zu\n",
                std::chrono::duration<double, std::milli>(end - start).count(), rssBefore,
                rssAfter, config.loadConfigSucceeded(),
                std::chrono::duration<double, std::milli>(dumped - end).count(), dump.size());
    return 0;
}
CPP

g++ -std=c++17 -O2 -I. -isystem /usr/include/android -isystem /usr/include/jsoncpp \
  "$out/load_rule_file.cpp" config/*.cpp -o "$out/load_rule_file" -ljsoncpp \
  -L/usr/lib/x86_64-linux-gnu/android -llog -Wl,-rpath,/usr/lib/x86_64-linux-gnu/android

run() {
  local file=$1 label=$2
  shift 2
  /usr/bin/time -v "$out/load_rule_file" "$file" "$@" \
    2>"$out/time.txt" >"$out/result.txt" || { cat "$out/time.txt" >&2; exit 1; }
  printf 'measure: %-22s %s elapsed=%s max_rss_kb=%s\n' "$label" "$(cat "$out/result.txt")" \
    "$(sed -n 's/.*Elapsed (wall clock) time (h:mm:ss or m:ss): //p' "$out/time.txt")" \
    "$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$out/time.txt")"
}

run "$out/small.json" "one target, quiet" --quiet
for i in $(seq "${MEASURE_RUNS:-3}"); do
  run "$out/large.json" "10 MiB, quiet ($i)" --quiet
done
# With every info line written (to stderr, discarded), as a host run logs them.
/usr/bin/time -v "$out/load_rule_file" "$out/large.json" \
  2>"$out/time.txt" >"$out/result.txt" </dev/null || true
grep -v '^PeltoConfig' "$out/time.txt" >"$out/time_only.txt" || true
printf 'measure: %-22s %s elapsed=%s max_rss_kb=%s\n' "10 MiB, info lines" \
  "$(cat "$out/result.txt")" \
  "$(sed -n 's/.*Elapsed (wall clock) time (h:mm:ss or m:ss): //p' "$out/time_only.txt")" \
  "$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$out/time_only.txt")"
