#!/usr/bin/env bash
# Installs what the arm64 build and its emulated tests need (make test-arm64):
# the cross g++, qemu's user-mode emulator and the arm64 builds of the
# libraries the library and its tests link. Safe to run again: installed
# packages are skipped.
#
# libutils pulls in the arm64 libbacktrace, which needs p7zip's 7z.so from
# /usr/lib/p7zip. That directory is not per architecture, so the arm64
# p7zip-full cannot be installed beside the host's: its package is unpacked
# into DIR (the first argument) instead, and the arm64 preset points the linker
# and the emulator at DIR/usr/lib/p7zip.
set -euo pipefail

p7zip_dir=${1:?usage: $0 DIR-for-the-arm64-7z.so}

if [ "$(id -u)" -ne 0 ]; then
  SUDO=sudo
else
  SUDO=
fi
export DEBIAN_FRONTEND=noninteractive

# zlib1g-dev:arm64 is left out on purpose: only the tools link zlib, and the
# arm64 build has none. It would also bring libc6-dev:arm64, whose own
# dependencies (linux-libc-dev, libssl3, krb5 ...) must be at the same version
# for both architectures and so can upgrade the host's. The cross g++ brings
# its own C library headers.
packages=(
  g++-aarch64-linux-gnu qemu-user
  android-liblog-dev:arm64 android-libcutils-dev:arm64 android-libbase-dev:arm64
  android-libutils-dev:arm64 libjsoncpp-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
)

updated=
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  echo "install-arm64-deps: adding the arm64 architecture to dpkg"
  $SUDO dpkg --add-architecture arm64
  $SUDO apt-get update -qq
  updated=1
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -ne 0 ]; then
  echo "install-arm64-deps: installing ${missing[*]}"
  [ -n "$updated" ] || $SUDO apt-get update -qq
  updated=1
  # --no-remove: apt stops rather than remove a host package to make room.
  $SUDO apt-get install -y -qq --no-install-recommends --no-remove "${missing[@]}"
fi

if [ ! -f "$p7zip_dir/usr/lib/p7zip/7z.so" ]; then
  echo "install-arm64-deps: unpacking the arm64 7z.so into $p7zip_dir"
  [ -n "$updated" ] || $SUDO apt-get update -qq
  download=$(mktemp -d)
  trap 'rm -rf "$download"' EXIT
  # As root, apt downloads as its own user, which must be able to write there.
  if [ "$(id -u)" -eq 0 ] && id _apt >/dev/null 2>&1; then chown _apt "$download"; fi
  (cd "$download" && apt-get download -qq p7zip-full:arm64)
  mkdir -p "$p7zip_dir"
  dpkg -x "$download"/p7zip-full_*_arm64.deb "$p7zip_dir"
fi
