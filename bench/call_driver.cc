// Client-side instructions of a fixed number of calls, for callgrind:
//   valgrind --tool=callgrind --callgrind-out-file=F kova-bench-driver MODE N
// MODE is sync-library, sync-bare, fire-library or fire-bare (the calls of
// bench_calls.cc). Connecting and a warm-up are excluded: the counters are
// zeroed before the calls and dumped after them, over every thread of the
// process (the caller's and GDBus's worker). The service and the bus run in
// processes of their own and are not counted.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench_env.h"
#include "kova_api.h"
#include "kova_private.h"

namespace {


struct Mode {
  const char *name;
  bool (*run)(GDBusConnection *, int);
};
const Mode kModes[] = {{"sync-library", kova_bench::SyncLibrary},
                       {"sync-bare", kova_bench::SyncBare},
                       {"fire-library", kova_bench::FireLibrary},
                       {"fire-bare", kova_bench::FireBare}};

}  // namespace

int main(int argc, char **argv) {
  const Mode *mode = nullptr;
  for (const Mode &m : kModes) {
    if (argc == 3 && std::strcmp(argv[1], m.name) == 0) mode = &m;
  }
  const int n = argc == 3 ? std::atoi(argv[2]) : 0;
  if (mode == nullptr || n <= 0) {
    std::fprintf(stderr, "usage: %s sync-library|sync-bare|fire-library|fire-bare CALLS\n", argv[0]);
    return 2;
  }
  std::string error;
  std::unique_ptr<kova_bench::BenchBus> env = kova_bench::BenchBus::Start(&error);
  if (!env) {
    std::fprintf(stderr, "kova-bench-driver: %s\n", error.c_str());
    return 1;
  }
  GDBusConnection *c = _kova_dbus_get_connection();
  if (c == nullptr || !mode->run(c, 50)) {
    std::fprintf(stderr, "kova-bench-driver: the echo service does not answer\n");
    return 1;
  }
  CALLGRIND_ZERO_STATS;
  const bool ok = mode->run(c, n);
  CALLGRIND_DUMP_STATS_AT("measured");
  g_dbus_connection_set_exit_on_close(c, FALSE);
  return ok ? 0 : 1;
}
