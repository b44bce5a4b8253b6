#!/usr/bin/env bash
# Leak check: runs test executables under valgrind's memcheck and fails on any
# memory error and on any byte definitely or indirectly lost.
#
#   scripts/valgrind.sh EXECUTABLE...   check these (CTest does this, label valgrind)
#   scripts/valgrind.sh                 run every valgrind-labelled test of build/
#
# GLib's caches would otherwise hide or fake leaks: G_SLICE=always-malloc makes
# every slice a plain malloc, G_DEBUG=gc-friendly clears freed memory, and
# GLib's own suppression file covers the one-time allocations it keeps for
# the life of the process (types, quarks, the shared bus connection's classes).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

if [ "$#" -eq 0 ]; then
  build=${KOVA_BUILD_DIR:-$root/build}
  cd "$build"
  exec ctest -L valgrind --output-on-failure -j "$(nproc)"
fi

supp=/usr/share/glib-2.0/valgrind/glib.supp
if [ ! -r "$supp" ]; then
  echo "valgrind.sh: $supp missing (package libglib2.0-dev)" >&2
  exit 1
fi

status=0
for exe in "$@"; do
  echo "memcheck: $exe"
  if ! G_SLICE=always-malloc G_DEBUG=gc-friendly,fatal-criticals \
      valgrind --tool=memcheck -q --error-exitcode=99 --num-callers=40 \
        --leak-check=full --show-leak-kinds=definite,indirect \
        --errors-for-leak-kinds=definite,indirect \
        --suppressions="$supp" "$exe"; then
    echo "memcheck: $exe FAILED" >&2
    status=1
  fi
done
exit $status
