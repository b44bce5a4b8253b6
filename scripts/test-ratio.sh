#!/usr/bin/env bash
# The test-to-code ratio as docs/testing.md counts it: non-blank lines of the
# C and C++ sources (.c .cc .cpp .h .hpp) of tests/ and fuzz/, against those of
# the library (src/, include/), the stand-ins (platform/), the tools (tools/)
# and the examples (examples/). Build files, data, documentation, scripts
# (shell, wherever they are) and benchmarks count on neither side.
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
  find "$@" -type f \( -name '*.c' -o -name '*.cc' -o -name '*.cpp' -o -name '*.h' -o -name '*.hpp' \) \
    -print0 | xargs -0 cat | grep -cv '^[[:space:]]*$'
}
tests=$(count tests) fuzz=$(count fuzz) code=$(count src include platform tools examples)
echo "tests/ $tests, fuzz/ $fuzz, code $code: $(((tests + fuzz) * 1000 / code / 10)).$(((tests + fuzz) * 1000 / code % 10))%"
