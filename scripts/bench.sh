#!/usr/bin/env bash
# Runs the benchmarks and writes the results to docs/benchmarks.md, with the
# machine they ran on. Builds what is missing first (into build/, the default
# RelWithDebInfo build, or $KOVA_BUILD_DIR).
#
#  - wall time and throughput: bench/kova-bench (Google Benchmark), library and
#    bare GDBus side by side in one run, in alternating blocks;
#  - signal dispatch: bench/kova-bench-dispatch (Google Benchmark), the
#    library's handlers with registries of growing size;
#  - client instructions: bench/kova-bench-driver under callgrind, a fixed
#    number of calls per variant (repeatable on a busy machine).
#
# Environment: KOVA_BENCH_REPETITIONS (default 10), KOVA_BENCH_CALLS (calls
# counted under callgrind, default 2000), KOVA_BENCH_OUT (default
# docs/benchmarks.md).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KOVA_BUILD_DIR:-$root/build}
reps=${KOVA_BENCH_REPETITIONS:-10}
calls=${KOVA_BENCH_CALLS:-2000}
out=${KOVA_BENCH_OUT:-$root/docs/benchmarks.md}

"$root/scripts/setup.sh"
"$root/scripts/build.sh" "$build" -DKOVA_BUILD_BENCH=ON
work=$(mktemp -d /tmp/kova-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
# Every log line of the library is formatted and written, as on a device
# whose log keeps info lines; the stand-in would otherwise drop them.
export MARLO_LOG_LEVEL=info

# Wall time. The library's log lines go to stderr, which is dropped: the
# stand-in still formats and writes every one of them.
echo "bench: Google Benchmark, $reps repetitions"
"$build/bench/kova-bench" --benchmark_repetitions="$reps" --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true --benchmark_format=json >"$work/bench.json" 2>/dev/null
echo "bench: signal dispatch, $reps repetitions"
"$build/bench/kova-bench-dispatch" --benchmark_repetitions="$reps" --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true --benchmark_format=json >"$work/dispatch.json" 2>/dev/null

# Client instructions of $calls calls per variant.
for mode in sync-library sync-bare fire-library fire-bare; do
  echo "bench: callgrind, $mode, $calls calls"
  valgrind --tool=callgrind --log-file="$work/$mode.log" --callgrind-out-file="$work/$mode.out" \
    "$build/bench/kova-bench-driver" "$mode" "$calls" 2>/dev/null
  # The driver dumps the measured calls as part 1.
  sed -n 's/^summary: *//p' "$work/$mode.out.1" >"$work/$mode.ir"
done
# Instructions of $calls signals dispatched, registries of each size.
for case in "rsc 1" "rsc 100" "rsc 10000" "best 1" "best 10" "best 100"; do
  set -- $case
  echo "bench: callgrind, $1 dispatch with $2, $calls signals"
  valgrind --tool=callgrind --log-file="$work/dispatch-$1-$2.log" --callgrind-out-file="$work/dispatch-$1-$2.out" \
    "$build/bench/kova-bench-dispatch" count "$1" "$2" "$calls" 2>/dev/null
  sed -n 's/^summary: *//p' "$work/dispatch-$1-$2.out.1" >"$work/dispatch-$1-$2.ir"
done
for mode in sync-library fire-library fire-bare; do
  callgrind_annotate --inclusive=yes --auto=no --threshold=100 "$work/$mode.out.1" >"$work/$mode.annotate" 2>/dev/null
done

load_after=$(cut -d' ' -f1-3 /proc/loadavg)

# --- reading the results ---------------------------------------------------
# A value of a Google Benchmark aggregate: agg PREFIX KEY AGGREGATE, for the
# benchmark whose name starts with PREFIX (Google Benchmark appends its
# settings, e.g. "sync_call/min_time:2.000/real_time_median").
agg() {
  awk -v prefix="$1" -v key="\"$2\":" -v suffix="_$3" '
    $1 == "\"name\":" { name = $2; gsub(/[",]/, "", name); next }
    $1 == key && index(name, prefix) == 1 && substr(name, length(name) - length(suffix) + 1) == suffix {
      v = $2; gsub(",", "", v); print v; exit
    }' "$work/bench.json" "$work/dispatch.json"
}
median() { agg "$1/" "$2" median; }
spread() { agg "$1/" "$2" stddev; }
# Instructions per call of a callgrind variant.
per_call() { awk -v n="$calls" '{ printf "%.0f", $1 / n }' "$work/$1.ir"; }
# Inclusive instructions per call of the functions whose line matches a regex.
incl() {
  awk -v re="$2" -v n="$calls" '
    /^ *[0-9,]+ \(/ && $0 ~ re { v = $1; gsub(",", "", v); s += v }
    END { printf "%.0f", s / n }' "$work/$1.annotate"
}
# Calls of a function (by its plain name) per measured call, from a dump.
calls_to() {
  awk -v want="$2" -v n="$calls" '
    match($0, /^c?fn=\([0-9]+\)/) {
      id = substr($0, RSTART, RLENGTH); sub(/^c?fn=/, "", id)
      rest = substr($0, RLENGTH + 2)
      if (rest != "") name[id] = rest
      target = ($0 ~ /^cfn=/) ? id : ""
      next
    }
    /^calls=/ && target != "" { split($0, a, /[= ]/); count[target] += a[2]; target = "" }
    END { for (id in count) if (name[id] == want) s += count[id]; printf "%.2f", s / n }' "$work/$1.out.1"
}
calc() { awk "BEGIN { printf \"$1\", $2 }"; }
verdict() { awk "BEGIN { print ($1) ? \"met\" : \"**missed**\" }"; }

sync_lib_us=$(median sync_call library_us)
sync_bare_us=$(median sync_call bare_us)
sync_lib_sd=$(spread sync_call library_us)
sync_bare_sd=$(spread sync_call bare_us)
sync_wall_ratio=$(calc %.3f "$(median sync_call ratio)")
sync_pairs=$(calc %.0f "$(median sync_call pairs)")
fire_lib_ips=$(median fire_and_forget library_per_s)
fire_bare_ips=$(median fire_and_forget bare_per_s)
fire_lib_sd=$(spread fire_and_forget library_per_s)
fire_bare_sd=$(spread fire_and_forget bare_per_s)
fire_ratio=$(calc %.3f "$(median fire_and_forget ratio)")
fire_pairs=$(calc %.0f "$(median fire_and_forget pairs)")
id1=$(agg command_id/real_time/threads:1_ items_per_second median)
id4=$(agg command_id/real_time/threads:4_ items_per_second median)

ir_sync_lib=$(per_call sync-library)
ir_sync_bare=$(per_call sync-bare)
ir_fire_lib=$(per_call fire-library)
ir_fire_bare=$(per_call fire-bare)

sync_ir_ratio=$(calc %.3f "$ir_sync_lib / $ir_sync_bare")
fire_ir_ratio=$(calc %.3f "$ir_fire_lib / $ir_fire_bare")

log_sync=$(incl sync-library ':__marlo_print \[')
log_fire=$(incl fire-library ':__marlo_print \[')
id_sync=$(incl sync-library ':_kova_get_command_id \[')
cpu_sync=$(incl sync-library ':resource_(set|clear)_cpu_inheritance \[')
check_outer=$(incl sync-library ':kova::call_sync\(')
check_inner=$(incl sync-library ':_kova_dbus_method_call \[')
check_sync=$((check_outer - check_inner))
gdbus_fire_lib=$(incl fire-library ':g_dbus_connection_call \[')
gdbus_fire_bare=$(incl fire-bare ':g_dbus_connection_call \[')
writes_fire_lib=$(calls_to fire-library write)
writes_fire_bare=$(calls_to fire-bare write)
futex_fire_lib=$(calls_to fire-library syscall)
futex_fire_bare=$(calls_to fire-bare syscall)
# Signal dispatch: the table cells (times in nanoseconds per signal).
us() { echo "$(calc %.2f "$(median "$1" real_time) / 1000") ± $(calc %.2f "$(spread "$1" real_time) / 1000") µs"; }
per_cb() { calc "%.2f µs" "$(median "best_quality_dispatch/$1" real_time) / 1000 / $1"; }
ratio_to_1() {
  calc %.3f "$(median "app_rsc_changed_dispatch/$1" real_time) / $(median app_rsc_changed_dispatch/1 real_time)"
}
dispatch_ir() { per_call "dispatch-$1-$2"; }
ir_ratio_to_1() { calc %.3f "$(dispatch_ir rsc "$1") / $(dispatch_ir rsc 1)"; }
rsc_ratio_10000=$(ratio_to_1 10000)
rsc_ir_ratio_10000=$(ir_ratio_to_1 10000)

sync_wo_log=$(calc %.3f "($ir_sync_lib - $log_sync) / $ir_sync_bare")
fire_wo_log=$(calc %.3f "($ir_fire_lib - $log_fire) / $ir_fire_bare")

cache() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
cxx=$(cache CMAKE_CXX_COMPILER)
build_type=$(cache CMAKE_BUILD_TYPE)
build_type=${build_type:-RelWithDebInfo}
build_flags=$(cache "CMAKE_CXX_FLAGS_$(echo "$build_type" | tr '[:lower:]' '[:upper:]')")
cpu=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)

# --- the document --------------------------------------------------------------
mkdir -p "$(dirname "$out")"
{
  cat <<DOC
# Benchmarks

Written by \`scripts/bench.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC'); run it again to refresh.

| machine | |
|---|---|
| CPU | ${cpu:-unknown} |
| cores | $(nproc) |
| kernel | $(uname -sr) |
| compiler | $("$cxx" --version | head -1) |
| build type | $build_type ($build_flags) |
| GLib | $(pkg-config --modversion glib-2.0) |
| dbus-daemon | $(dbus-daemon --version | head -1) |
| load average (1, 5, 15 min) before / after | $load_before / $load_after |

Every comparison runs in one process against the same private bus and the same
service (\`bench/echo_service.cc\`, a process of its own that answers every
method of the kova interface with \`(i)\` 0 from its connection's worker
thread). "Library" is the exported function; "bare" is the same method with the
same argument types sent with plain GDBus on the same connection. The library
runs with the real platform stand-ins: each of its log lines is formatted and
written to stderr (sent to /dev/null); the CPU-inheritance stand-in returns at
once. For wall time, blocks of library calls and blocks of bare calls
alternate (timed one by one, so that both meet the same load); each
repetition reports the median time per call of each variant and the median
ratio of neighbouring blocks, and the tables show the median over $reps
repetitions, with the standard deviation across them. Instructions are counted by callgrind over $calls calls per variant, all
threads of the client process (the caller and GDBus's worker), neither the bus
nor the service.

## (a) Synchronous call: \`kova_player_video_start_done\` against \`g_dbus_connection_call_sync\`

| | library | bare | ratio | target | |
|---|---|---|---|---|---|
| wall time per call (± standard deviation) | $(calc %.1f "$sync_lib_us") ± $(calc %.1f "$sync_lib_sd") µs | $(calc %.1f "$sync_bare_us") ± $(calc %.1f "$sync_bare_sd") µs | $sync_wall_ratio | ≤ 1.05 | $(verdict "$sync_wall_ratio <= 1.05") |
| client instructions per call | $ir_sync_lib | $ir_sync_bare | $sync_ir_ratio | ≤ 1.05 | $(verdict "$sync_ir_ratio <= 1.05") |

Each repetition timed $sync_pairs pairs of blocks of 10 calls.

Where the library's extra instructions go, per call (inclusive, from callgrind):

| part | instructions | share of the bare call |
|---|---|---|
| three log lines (">>", "Method call '%s'", the result line) in the log stand-in | $log_sync | $(calc %.1f%% "100 * $log_sync / $ir_sync_bare") |
| command identifier | $id_sync | $(calc %.2f%% "100 * $id_sync / $ir_sync_bare") |
| CPU-inheritance set and clear (stand-ins) | $cpu_sync | $(calc %.2f%% "100 * $cpu_sync / $ir_sync_bare") |
| reply type check and its bookkeeping | $check_sync | $(calc %.2f%% "100 * $check_sync / $ir_sync_bare") |
| all of it (library minus bare) | $((ir_sync_lib - ir_sync_bare)) | $(calc %.1f%% "100 * ($ir_sync_lib - $ir_sync_bare) / $ir_sync_bare") |

Without the log lines the library would run at $sync_wo_log of the bare call.

## (b) Fire-and-forget: \`kova_player_request_stop\` against \`g_dbus_connection_call\`

Calls per second, in blocks of 200 calls, each block closed by a round trip
to the service so that a call counts once the service has received it.

| | library | bare | ratio | target | |
|---|---|---|---|---|---|
| calls per second (± standard deviation) | $(calc %.0f "$fire_lib_ips") ± $(calc %.0f "$fire_lib_sd") | $(calc %.0f "$fire_bare_ips") ± $(calc %.0f "$fire_bare_sd") | $fire_ratio | ≥ 0.95 | $(verdict "$fire_ratio >= 0.95") |
| client instructions per call | $ir_fire_lib | $ir_fire_bare | $fire_ir_ratio | | |

Each repetition timed $fire_pairs pairs of blocks.

Per call, from callgrind:

| | library | bare |
|---|---|---|
| log lines in the log stand-in | $log_fire | 0 |
| \`g_dbus_connection_call\` (inclusive) | $gdbus_fire_lib | $gdbus_fire_bare |
| \`write\` calls (log lines and wake-ups of GDBus's worker) | $writes_fire_lib | $writes_fire_bare |
| \`syscall\` calls (futex wake-ups) | $futex_fire_lib | $futex_fire_bare |

Without the log lines the library would run at $fire_wo_log of the bare call's
instructions.

## (c) "AppRscChanged" dispatch with 1, 100 and 10,000 registered application ids

One signal handed to the library's handler, as GDBus hands it over after
reading the message (\`bench/bench_dispatch.cc\`; the bus is not involved, so
this is the library's own work alone: type check, unpacking, two log lines,
the lookup and the callback). The signal names one of the registered ids.

| registered ids | time per signal (± standard deviation) | against 1 id | instructions per signal | against 1 id |
|---|---|---|---|---|
| 1 | $(us app_rsc_changed_dispatch/1) | 1 | $(dispatch_ir rsc 1) | 1 |
| 100 | $(us app_rsc_changed_dispatch/100) | $(ratio_to_1 100) | $(dispatch_ir rsc 100) | $(ir_ratio_to_1 100) |
| 10,000 | $(us app_rsc_changed_dispatch/10000) | $rsc_ratio_10000 | $(dispatch_ir rsc 10000) | $rsc_ir_ratio_10000 |

Target: 10,000 ids within 1.2 times the cost of 1. Time: $rsc_ratio_10000,
$(verdict "$rsc_ratio_10000 <= 1.2"); instructions (callgrind, $calls signals,
repeatable on a busy machine): $rsc_ir_ratio_10000, $(verdict "$rsc_ir_ratio_10000 <= 1.2").

## (d) Best-quality-zone dispatch with 1, 10 and 100 callbacks

The same for "BestQualitZoneSwitched": every registered callback is called,
each with its own log line.

| callbacks | time per signal (± standard deviation) | per callback | instructions per signal |
|---|---|---|---|
| 1 | $(us best_quality_dispatch/1) | $(per_cb 1) | $(dispatch_ir best 1) |
| 10 | $(us best_quality_dispatch/10) | $(per_cb 10) | $(dispatch_ir best 10) |
| 100 | $(us best_quality_dispatch/100) | $(per_cb 100) | $(dispatch_ir best 100) |

## (e) Command identifiers

| threads | identifiers per second |
|---|---|
| 1 | $(calc %.3g "$id1") |
| 4 | $(calc %.3g "$id4") |
DOC
  if [ -r "$root/docs/benchmarks-notes.md" ]; then
    echo
    cat "$root/docs/benchmarks-notes.md"
  fi
} >"$out"
echo "bench: wrote $out"
