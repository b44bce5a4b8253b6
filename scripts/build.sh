#!/usr/bin/env bash
# Configures and builds into $1 (default build/) with any extra cmake arguments.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build}
shift || true
cmake -S "$root" -B "$dir" -DKOVA_BUILD_TESTS=ON "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
