#!/usr/bin/env bash
# Checks the lock annotations (GUARDED_BY, REQUIRES, EXCLUDES) of every source
# with clang's -Wthread-safety against libc++ built with its annotations, as an
# Android tree does. GCC ignores the annotations, so this is where a missing
# lock becomes an error. Compiles only; links nothing.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t sources < <(git ls-files --cached --others --exclude-standard \
  'controller/*.cpp' 'config/*.cpp' 'scheduler/*.cpp' 'trace/*.cpp' \
  'tests/*.cpp' 'fuzz/*.cpp' 'tools/*.cpp' 'bench/*.cpp' 2>/dev/null | sort -u)
if [ ${#sources[@]} -eq 0 ]; then
  echo "check-thread-safety: no sources found" >&2
  exit 1
fi

flags=(
  -std=c++17 -stdlib=libc++ -D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS
  -Wthread-safety -Wall -Wextra -Werror -fsyntax-only
  -DATRACE_TAG=ATRACE_TAG_GRAPHICS
  -I. -Iplatform/host/include -Itests -isystem /usr/include/android -isystem /usr/include/jsoncpp
  -DPELTO_LIBRARY_PATH='""'
)

printf '%s\n' "${sources[@]}" |
  xargs -P "$(nproc)" -I{} sh -c 'clang++ "$@" {} || { echo "check-thread-safety: {} failed" >&2; exit 255; }' _ "${flags[@]}"
echo "check-thread-safety: ${#sources[@]} sources clean"
