#!/usr/bin/env bash
# Continuous integration, in the order that fails fastest:
#  1. scripts/test.sh: the normal build and the whole suite (the README's test command);
#  2. memcheck over the integration tests of that build (label valgrind);
#  3. build-asan: AddressSanitizer + UndefinedBehaviorSanitizer, leak detection
#     on, the whole suite;
#  4. build-tsan: ThreadSanitizer, the whole suite (the many-threads test, and every
#     test where a callback, the fake service or a second thread runs
#     alongside the caller);
#  5. build-fuzz: every libFuzzer target for a short while over its corpus.
# Prints how long each step took. Sanitizer builds skip the benchmarks.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}

timings=()
step() {
  local name=$1
  shift
  printf '\n=== ci: %s ===\n' "$name"
  local start=$SECONDS
  "$@"
  timings+=("$(printf '%4ds  %s' $((SECONDS - start)) "$name")")
}

in_dir() { (cd "$1" && shift && "$@"); }

step "test suite (scripts/test.sh)" bash "$root/scripts/test.sh"
step "memcheck (label valgrind)" in_dir "$root/build" ctest -L valgrind --output-on-failure -j "$jobs"

step "build address,undefined" "$root/scripts/build.sh" "$root/build-asan" \
  -DKOVA_SANITIZE=address,undefined -DCMAKE_BUILD_TYPE=Debug -DKOVA_BUILD_BENCH=OFF
step "test suite under address,undefined" in_dir "$root/build-asan" ctest --output-on-failure -j "$jobs"

step "build thread" "$root/scripts/build.sh" "$root/build-tsan" \
  -DKOVA_SANITIZE=thread -DKOVA_BUILD_BENCH=OFF -DKOVA_BUILD_EXAMPLES=OFF
step "test suite under thread" in_dir "$root/build-tsan" ctest --output-on-failure -j "$jobs"

step "fuzz (scripts/fuzz.sh)" bash "$root/scripts/fuzz.sh" "${KOVA_CI_FUZZ_SECONDS:-10}"

printf '\n=== ci: passed ===\n'
printf '%s\n' "${timings[@]}"
printf '%4ds  total\n' "$SECONDS"
