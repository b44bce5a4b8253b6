#!/usr/bin/env bash
# The library exports exactly its API: the version script's names, which are
# the functions of the public header plus the service-link functions, and it
# leaves no weak reference (a test seam) for another object to fill in.
# Usage: check_exports.sh LIBRARY MAP HEADER
set -euo pipefail
lib=$1 map=$2 header=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

nm -D --defined-only "$lib" | awk '$2 ~ /^[TWiDB]$/ {print $3}' | sed 's/@.*//' | sort -u >"$tmp/exported"
sed -n '/global:/,/local:/p' "$map" | sed 's#/\*.*\*/##' | grep -oE '^[[:space:]]*[A-Za-z_][A-Za-z0-9_]*;' |
  tr -d ' ;\t' | sort -u >"$tmp/map"
grep -oP 'KOVA_API[^(;]*?\b\Kkova_\w+(?=\s*\()' "$header" | sort -u >"$tmp/header"
grep -E '^_kova_' "$tmp/map" >"$tmp/internal" || true
sort -u "$tmp/header" "$tmp/internal" >"$tmp/api"

status=0
if ! diff -u "$tmp/map" "$tmp/exported" >"$tmp/d1"; then
  echo "exported symbols differ from the version script:"; cat "$tmp/d1"; status=1
fi
if ! diff -u "$tmp/api" "$tmp/exported" >"$tmp/d2"; then
  echo "exported symbols differ from the public header plus the service link:"; cat "$tmp/d2"; status=1
fi
if grep -qx 'kova_app_free' "$tmp/exported"; then
  echo "kova_app_free is internal but exported"; status=1
fi
# The toolchain's own weak references are the only ones allowed.
weak=$(nm -D --undefined-only "$lib" | awk '$1 == "w" {print $2}' | sed 's/@.*//' |
  grep -vxE '__gmon_start__|__cxa_finalize|_ITM_(de)?registerTMCloneTable' || true)
if [ -n "$weak" ]; then
  echo "weak undefined symbols:" $weak; status=1
fi
echo "$(wc -l <"$tmp/exported") exported symbols checked"
exit $status
