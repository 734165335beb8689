#!/usr/bin/env bash
# Measures what the timer's dispatch thread costs while no file descriptor is
# free: builds a small program from scheduler/ and trace/ (at REV, default the
# working tree) with g++ -O2, lowers the process's descriptor limit and fills
# it, creates a PeltoTimer on the platform's own calls, lets it fail for
# MEASURE_SECONDS (default 2), then destroys it while the failure lasts.
# Prints the process's CPU time over that period, how long the destructor took,
# and how many log lines the timer wrote (they go to stderr, counted here).
# Usage: scripts/measure-timer-retry.sh [REV]. Output in build/measure/.
set -euo pipefail
cd "$(dirname "$0")/.."

out=build/measure/timer-retry
rm -rf "$out" && mkdir -p "$out/src"
if [ $# -gt 0 ]; then
  git archive "$1" scheduler trace | tar -x -C "$out/src"
else
  cp -r scheduler trace "$out/src"
fi

cat >"$out/retry.cpp" <<'CPP'
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "scheduler/PeltoTimer.h"

static double cpuMs() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
            (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

int main() {
    const double seconds = std::atof(getenv("MEASURE_SECONDS") ? getenv("MEASURE_SECONDS") : "2");
    rlimit limit{64, 64};
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> fillers;
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) fillers.push_back(fd);

    const double cpuBefore = cpuMs();
    auto* timer = new android::scheduler::PeltoTimer("Pelto");
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double cpuAfter = cpuMs();
    const auto start = std::chrono::steady_clock::now();
    delete timer;
    const auto end = std::chrono::steady_clock::now();
    std::printf("seconds=%.1f cpu_ms=%.1f destroy_ms=%.3f\n", seconds, cpuAfter - cpuBefore,
                std::chrono::duration<double, std::milli>(end - start).count());
    return 0;
}
CPP

g++ -std=c++17 -O2 -DATRACE_TAG=ATRACE_TAG_GRAPHICS -I"$out/src" -Iplatform/host/include \
  -isystem /usr/include/android -include platform/host/gcc/thread_annotations_off.h \
  "$out/retry.cpp" "$out"/src/scheduler/*.cpp "$out"/src/trace/*.cpp -o "$out/retry" -pthread \
  -L/usr/lib/x86_64-linux-gnu/android -llog -lcutils -lbase -lutils \
  -Wl,-rpath,/usr/lib/x86_64-linux-gnu/android

"$out/retry" 2>"$out/log.txt" >"$out/result.txt"
printf 'measure: %s log_lines=%s\n' "$(cat "$out/result.txt")" \
  "$(grep -c 'SchedulerTimer' "$out/log.txt" || true)"
grep 'SchedulerTimer' "$out/log.txt" | sort | uniq -c | sort -rn | head -8
