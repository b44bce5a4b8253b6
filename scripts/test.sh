#!/usr/bin/env bash
# The whole test suite: set-up, build, and every test under CTest.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" "$root/build"
cd "$root/build"
# The memcheck run (label valgrind) is slow and has its own step in scripts/ci.sh.
ctest --output-on-failure -j "$(nproc)" -LE valgrind "$@"
