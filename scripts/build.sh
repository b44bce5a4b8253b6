#!/usr/bin/env bash
# Configures and builds into $1 (default build/) with any extra cmake arguments.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build}
shift || true
# A build directory configured for another source tree (copied along with a
# work tree) makes cmake refuse to run. Only a directory this script made
# (it leaves a mark) is started afresh; any other is the user's to remove.
mark=.kova-build-dir
if [ -f "$dir/CMakeCache.txt" ] &&
   ! grep -qx "CMAKE_HOME_DIRECTORY:INTERNAL=$root" "$dir/CMakeCache.txt"; then
  if [ ! -f "$dir/$mark" ]; then
    echo "build: $dir was configured for another source tree and was not made by this script;" >&2
    echo "build: remove it yourself, or choose another directory" >&2
    exit 1
  fi
  echo "build: $dir was made for another source tree; starting it afresh"
  rm -rf "$dir"
fi
mkdir -p "$dir"
touch "$dir/$mark"
cmake -S "$root" -B "$dir" -DKOVA_BUILD_TESTS=ON "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
