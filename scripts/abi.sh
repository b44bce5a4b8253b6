#!/usr/bin/env bash
# The exported ABI of libkova-api against the committed baseline
# abi/libkova-api.abi (abigail-tools; the library must carry debug info, which
# the default RelWithDebInfo build and the Debug build do).
#
#   scripts/abi.sh baseline [LIBRARY]   write the baseline from LIBRARY
#   scripts/abi.sh check [LIBRARY]      compare LIBRARY with the baseline
#
# LIBRARY defaults to build/src/libkova-api.so. The check passes when the
# library only adds to the baseline (new functions, new types, new enumerators)
# and fails when anything of the baseline was removed or changed. After an
# intended change of the ABI, write a new baseline and commit it with the change.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
baseline=${KOVA_ABI_BASELINE:-$root/abi/libkova-api.abi}
cmd=${1:-}
lib=$(readlink -f "${2:-$root/build/src/libkova-api.so}")

if [ ! -r "$lib" ]; then
  echo "abi.sh: no library at ${2:-$root/build/src/libkova-api.so}" >&2
  exit 2
fi

case "$cmd" in
  baseline)
    mkdir -p "$(dirname "$baseline")"
    # No paths or source locations: the baseline must not depend on where it was built.
    abidw --no-corpus-path --no-comp-dir-path --no-show-locs --drop-undefined-syms \
      --out-file "$baseline" "$lib"
    echo "abi.sh: wrote $baseline ($(grep -c '<elf-symbol ' "$baseline") symbols)"
    ;;
  check)
    out=$(mktemp)
    trap 'rm -f "$out"' EXIT
    status=0
    abidiff "$baseline" "$lib" >"$out" || status=$?
    # abidiff's status is a bit set: 1 error, 2 usage error, 4 some change,
    # 8 incompatible change. Additions alone give 4; so do changed functions,
    # hence the summary lines decide.
    if (( status & 3 )); then
      cat "$out"
      echo "abi.sh: abidiff failed ($status)" >&2
      exit 1
    fi
    if (( status & 8 )) || grep -Eq '(^|[^0-9])[1-9][0-9]* (Removed|Changed)' "$out"; then
      cat "$out"
      echo "abi.sh: the ABI of $lib breaks the baseline (only additions are allowed)" >&2
      exit 1
    fi
    if (( status & 4 )); then
      grep -E 'summary' "$out" || true
      echo "abi.sh: additions only; compatible with the baseline"
    else
      echo "abi.sh: identical to the baseline"
    fi
    ;;
  *)
    echo "usage: $0 baseline|check [LIBRARY]" >&2
    exit 2
    ;;
esac
