#!/usr/bin/env bash
# Fails on any C++ source that clang-format-14 would change under .clang-format,
# as an Android tree's reviewers check every change. Scripts and JSON are not
# part of it.
set -euo pipefail
cd "$(dirname "$0")/.."
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  mapfile -t files < <(git ls-files '*.cpp' '*.h')
else
  mapfile -t files < <(find . -path ./build -prune -o \( -name '*.cpp' -o -name '*.h' \) -print)
fi
if ! clang-format-14 --dry-run -Werror "${files[@]}"; then
  echo "check-format: run clang-format-14 -i on the files above" >&2
  exit 1
fi
echo "check-format: ${#files[@]} sources formatted"
