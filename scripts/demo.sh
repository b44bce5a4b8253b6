#!/usr/bin/env bash
# The main job: builds what is missing, starts the reference kova service on a
# private bus (markers under a temporary directory, never the real /tmp ones),
# starts a passive `kovactl monitor`, then plays a scenario through kovactl and
# the examples. Each step waits for the signals it causes and prints them under
# it, so two runs tell the same story. Every process it starts is stopped at
# the end; on failure the service's log is shown and kept.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KOVA_BUILD_DIR:-$root/build}
"$root/scripts/setup.sh"

work=$(mktemp -d /tmp/kova-demo-XXXXXX)
sim_pid=
monitor_pid=
cleanup() {
  local status=$?
  [ -z "$monitor_pid" ] || kill "$monitor_pid" 2>/dev/null || true
  [ -z "$sim_pid" ] || kill -TERM "$sim_pid" 2>/dev/null || true
  if [ "$status" -ne 0 ]; then
    if [ -s "$work/sim.log" ]; then
      echo "--- kova-sim's log ($work/sim.log) ---" >&2
      tail -n 40 "$work/sim.log" >&2
    fi
    echo "demo failed; its files are kept in $work" >&2
  else
    rm -rf "$work"
  fi
}
trap cleanup EXIT

section() { printf '\n=== %s ===\n' "$*"; }

section "building into $build"
echo "(the first build compiles the library, the stand-ins, the tools, the examples and the tests:"
echo " a few minutes on two cores; later builds only what changed)"
start=$SECONDS
progress() {
  local shown=-10 line
  while IFS= read -r line; do
    printf '%s\n' "$line" >>"$work/build.log"
    if [[ $line =~ ^\[\ *([0-9]+)%\] ]] && ((BASH_REMATCH[1] >= shown + 10)); then
      shown=${BASH_REMATCH[1]}
      printf '  %3d%% built\n' "$shown"
    fi
  done
}
if ! "$root/scripts/build.sh" "$build" -DKOVA_INSTALL_PLATFORM_STANDINS=ON 2>&1 | progress; then
  tail -n 60 "$work/build.log"
  echo "the build failed; its log: $work/build.log" >&2
  exit 1
fi
echo "built in $((SECONDS - start)) s"

section "starting kova-sim on a private bus"
eval "$("$build/tools/kova-sim/kova-sim" --private-bus --sh-syntax --marker-root "$work" \
  --config "$root/scripts/demo.conf" -v 2>"$work/sim.log")"
sim_pid=$KOVA_SIM_PID
echo "bus:     $DBUS_SYSTEM_BUS_ADDRESS"
echo "markers: $PELK_ROOT/tmp (PELK_ROOT)"

kovactl=$build/tools/kovactl/kovactl
# Signals as the monitor prints them, without the request and change ids
# (they carry each caller's pid, different in every run).
"$kovactl" monitor --brief --register-app tv.app --register-app radio.app >"$work/signals" 2>"$work/monitor.err" &
monitor_pid=$!
seen=0
# Waits until the monitor has printed $1 more lines and prints them.
signals() {
  local want=$1 deadline=$((SECONDS + 10)) lines
  while lines=$(wc -l <"$work/signals"); ((lines < seen + want)); do
    if ((SECONDS >= deadline)) || ! kill -0 "$monitor_pid" 2>/dev/null; then
      echo "expected $want more lines from the monitor, saw $((lines - seen))" >&2
      cat "$work/monitor.err" >&2
      exit 1
    fi
    sleep 0.05
  done
  tail -n +"$((seen + 1))" "$work/signals" | head -n "$want" |
    sed -E 's/ (request|change)_id=[0-9A-F]+//; s/^/      ~ /'
  seen=$((seen + want))
}
signals 1 >/dev/null  # "ready": every signal from here on reaches the monitor
echo "monitor: watching every signal of the service (kovactl monitor --brief)"

# step N COMMAND...: runs the command, then shows the N signals it causes.
step() {
  local n=$1
  shift
  printf '\n$ %s\n' "${*#"$build"/}"
  "$@" 2>&1 | sed 's/^/    /'
  signals "$n"
}

section "a player's whole life (examples/player_life)"
step 4 "$build/examples/player_life" 1 5

section "two players compete for the only video decoder"
step 0 "$kovactl" player register 10
step 2 "$kovactl" player play 10
step 0 "$kovactl" player done video-start 10
step 0 "$kovactl" player done audio-start 10
step 0 "$kovactl" player register 20
echo "# player 20 wants to play: the service asks player 10 to stop first"
step 2 "$kovactl" player play 20
step 0 "$kovactl" player done video-stop 10
echo "# player 10 lets go once both stops are acknowledged: the decoder goes to player 20"
step 2 "$kovactl" player done audio-stop 10
step 0 "$kovactl" player done video-start 20
step 0 "$kovactl" player done audio-start 20
echo "# no resource policy is active: the library asks the platform, not the service"
step 0 "$kovactl" player audio-out 20

section "zones and the focused zone"
step 0 "$kovactl" zones assign tv.app 1
step 2 "$kovactl" zones assign radio.app 2
step 0 "$kovactl" zones list
step 0 "$kovactl" zones focused

section "audio focus"
step 3 "$kovactl" focus set 2
step 0 "$kovactl" focus get
step 0 "$kovactl" focus is radio.app
step 3 "$build/examples/zones_focus" 1 1 1

section "resource policy"
echo "# sending a list walks it to its end, which the library logs as the error \"no next app\""
step 1 "$kovactl" policy set game demo.owner tv.app:1:2 radio.app:0:5
step 1 "$kovactl" --json policy internal default
step 1 "$build/examples/policy_example" 2 1 5

section "the whole state at the end"
step 0 "$kovactl" status

section "unregistering"
step 0 "$kovactl" player unregister 10
step 0 "$kovactl" player unregister 20

section "done"
kill -INT "$monitor_pid"
wait "$monitor_pid" || true
monitor_pid=
extra=$(($(wc -l <"$work/signals") - seen))
if ((extra > 0)); then
  echo "the monitor saw $extra signals no step accounted for:" >&2
  tail -n "$extra" "$work/signals" >&2
  exit 1
fi
echo "stopping kova-sim"
kill -TERM "$sim_pid"
wait_for_exit=$((SECONDS + 10))
while kill -0 "$sim_pid" 2>/dev/null && ((SECONDS < wait_for_exit)); do sleep 0.05; done
sim_pid=
