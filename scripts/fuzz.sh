#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz/ and fuzzes each for
# the given number of seconds (default 20), starting from its seed corpus.
# Fails on any crash, leak, sanitizer report or GLib critical; the input that
# caused it is left in build-fuzz/artifacts/.
# Usage: scripts/fuzz.sh [seconds-per-target]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-20}
build="$root/build-fuzz"
targets=(signals replies lists)

cmake -S "$root" -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVA_BUILD_FUZZERS=ON -DKOVA_BUILD_TESTS=OFF \
  -DKOVA_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j 2 --target "${targets[@]/#/fuzz_}"

mkdir -p "$build/artifacts"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export G_SLICE=always-malloc
status=0
for t in "${targets[@]}"; do
  # New inputs go to the work corpus; the committed seeds stay untouched.
  work="$build/corpus/$t"
  mkdir -p "$work"
  echo "== fuzz_$t for ${seconds}s"
  if ! "$build/fuzz/fuzz_$t" -max_total_time="$seconds" -print_final_stats=1 -max_len=4096 \
      -artifact_prefix="$build/artifacts/$t-" "$work" "$root/fuzz/corpus/$t" 2>"$build/fuzz_$t.log"; then
    tail -n 60 "$build/fuzz_$t.log"
    echo "fuzz_$t FAILED (log: $build/fuzz_$t.log)"
    status=1
    continue
  fi
  grep -E '^(stat::number_of_executed_units|stat::average_exec_per_sec|#[0-9]+ +DONE)' "$build/fuzz_$t.log" || true
done
exit $status
