#!/usr/bin/env bash
# The main job: builds what is missing, starts the reference kova service on a
# private bus (markers under a temporary directory, never the real /tmp ones)
# and plays a short scenario through the examples, printing what happens.
# Every process it starts is stopped at the end.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KOVA_BUILD_DIR:-$root/build}
"$root/scripts/setup.sh"
echo "building into $build"
mkdir -p "$build"
"$root/scripts/build.sh" "$build" >"$build/demo-build.log" 2>&1 || { cat "$build/demo-build.log"; exit 1; }

work=$(mktemp -d /tmp/kova-demo-XXXXXX)
sim_pid=
cleanup() {
  if [ -n "$sim_pid" ] && kill -0 "$sim_pid" 2>/dev/null; then
    kill -TERM "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

section() { printf '\n=== %s ===\n' "$*"; }

section "starting kova-sim on a private bus"
mkfifo "$work/sim.out"
"$build/tools/kova-sim/kova-sim" --private-bus --marker-root "$work" --config "$root/scripts/demo.conf" \
  >"$work/sim.out" 2>"$work/sim.log" &
sim_pid=$!
exec {sim_out}<"$work/sim.out"
address=
while read -r -t 20 line <&"$sim_out"; do
  case "$line" in
    DBUS_SYSTEM_BUS_ADDRESS=*) address=${line#DBUS_SYSTEM_BUS_ADDRESS=} ;;
    ready) break ;;
  esac
done
if [ -z "$address" ]; then
  echo "kova-sim did not start:" >&2
  cat "$work/sim.log" >&2
  exit 1
fi
# Keep draining the service's stdout so that it never blocks on a full pipe.
cat <&"$sim_out" >/dev/null &
export DBUS_SYSTEM_BUS_ADDRESS=$address PELK_ROOT=$work
echo "bus: $address"
echo "markers under: $work/tmp"

run() {
  printf '\n$ %s\n' "$*"
  "$@" 2>/dev/null
}

section "a player's whole life"
run "$build/examples/player_life" 1 5

for extra in "$root"/scripts/demo.d/*.sh; do
  [ -e "$extra" ] || continue
  # shellcheck source=/dev/null
  . "$extra"
done

section "done"
echo "stopping kova-sim"
