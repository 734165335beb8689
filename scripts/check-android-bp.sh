#!/usr/bin/env bash
# Android.bp cannot be built here (no Soong), but it must parse and be
# formatted as bpfmt would format it: `bpfix -l` prints the names of files it
# would change, and a parse error, and nothing for a clean file.
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(bpfix -l Android.bp 2>&1) || { echo "$out"; echo "check-android-bp: bpfix failed" >&2; exit 1; }
if [ -n "$out" ]; then
  echo "$out"
  echo "check-android-bp: Android.bp is not bpfmt-clean (run: bpfix -w Android.bp)" >&2
  exit 1
fi
echo "check-android-bp: Android.bp clean"
