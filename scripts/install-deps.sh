#!/usr/bin/env bash
# Installs with apt-get whatever the build, the tests and the checks need and
# this machine does not have yet, plus the packages named as arguments (make
# bench adds valgrind). Safe to run again: installed packages are skipped.
set -euo pipefail

# nodejs checks the HTML page's script (node --check).
# llvm-14 brings llvm-symbolizer: ThreadSanitizer matches its suppressions
# (tests/tsan_suppressions.txt) against symbolized frames only.
packages=(
  cmake make g++ binutils clang clang-format-14 libclang-rt-14-dev libc++-14-dev libc++abi-14-dev llvm-14
  libjsoncpp-dev zlib1g-dev
  android-liblog-dev android-libcutils-dev android-libbase-dev android-libutils-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  jq
  nodejs
  soong
)
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
if [ "$(id -u)" -ne 0 ]; then
  SUDO=sudo
else
  SUDO=
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
