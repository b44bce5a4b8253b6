#!/usr/bin/env bash
# Configures and builds into $1 (default build/) with any extra cmake arguments.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build}
shift || true
# A build directory configured for another source tree (copied along with a
# work tree, or committed) makes cmake refuse to run: start it afresh.
if [ -f "$dir/CMakeCache.txt" ] &&
   ! grep -qx "CMAKE_HOME_DIRECTORY:INTERNAL=$root" "$dir/CMakeCache.txt"; then
  echo "build: $dir was configured for another source tree; removing it"
  rm -rf "$dir"
fi
cmake -S "$root" -B "$dir" -DKOVA_BUILD_TESTS=ON "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
