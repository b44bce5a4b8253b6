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
monitor_pid=
cleanup() {
  if [ -n "$monitor_pid" ]; then kill "$monitor_pid" 2>/dev/null || true; fi
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

kovactl=$build/tools/kovactl/kovactl
run() {
  printf '\n$ %s\n' "${*#$build/}"
  "$@" 2>/dev/null || echo "   (exit status $?)"
}

section "a player's whole life (examples/player_life)"
run "$build/examples/player_life" 1 5

section "kovactl monitor: every notification, as it arrives"
mkfifo "$work/monitor.out"
"$kovactl" monitor --app tv.app --app radio.app >"$work/monitor.out" 2>/dev/null &
monitor_pid=$!
exec {monitor_out}<"$work/monitor.out"
read -r -t 20 line <&"$monitor_out" || true
echo "monitor: $line"
# Events are printed as they come, between the commands that cause them.
( while read -r line; do echo "      [monitor] $line"; done <&"$monitor_out" ) &
printer_pid=$!

section "two players compete for the only video decoder"
run "$kovactl" player register 10
run "$kovactl" player play 10
run "$kovactl" player done video-start 10
run "$kovactl" player done audio-start 10
run "$kovactl" player register 20
echo "# player 20 wants to play: the service asks player 10 to stop first"
run "$kovactl" player play 20
run "$kovactl" player done video-stop 10
run "$kovactl" player done audio-stop 10
echo "# player 10 has let go: the decoder goes to player 20"
run "$kovactl" player done video-start 20
run "$kovactl" player done audio-start 20
run "$kovactl" player audio-out 20

section "zones and the focused zone"
run "$kovactl" zones assign tv.app 1
run "$kovactl" zones assign radio.app 2
run "$kovactl" zones list
run "$kovactl" zones focused

section "audio focus"
run "$kovactl" focus set 2
run "$kovactl" focus get
run "$kovactl" focus is radio.app
run "$build/examples/zones_focus" 1 1 1

section "resource policy"
run "$kovactl" policy set 3 demo.owner tv.app:1:2 radio.app:0:5
run "$kovactl" --json policy internal 0
run "$build/examples/policy_example" 2 1 5

section "unregistering"
run "$kovactl" player unregister 10
run "$kovactl" player unregister 20
# The last events reach the monitor before it is stopped: one more round trip.
run "$kovactl" focus get
kill -INT "$monitor_pid" 2>/dev/null || true
wait "$monitor_pid" 2>/dev/null || true
wait "$printer_pid" 2>/dev/null || true

section "done"
echo "stopping kova-sim"
