#!/usr/bin/env bash
# Installs what building and testing need, where it is missing (Debian 12, as root).
set -euo pipefail

packages=(cmake make g++ pkg-config libglib2.0-dev libglib2.0-bin dbus-daemon
          libgtest-dev libgmock-dev googletest libbenchmark-dev
          clang libclang-rt-14-dev valgrind abigail-tools binutils)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages and not root: ${missing[*]}" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
