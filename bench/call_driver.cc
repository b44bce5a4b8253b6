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

using kova_bench::kFireMethod;
using kova_bench::kName;
using kova_bench::kPath;
using kova_bench::kSyncMethod;

bool RoundTrip(GDBusConnection *c) {
  GVariant *r = g_dbus_connection_call_sync(c, kName, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  if (r == nullptr) return false;
  g_variant_unref(r);
  return true;
}

bool SyncLibrary(GDBusConnection *, int n) {
  for (int i = 0; i < n; ++i) {
    if (kova_player_video_start_done(1) != 0) return false;
  }
  return true;
}

bool SyncBare(GDBusConnection *c, int n) {
  for (int i = 0; i < n; ++i) {
    GVariant *r = g_dbus_connection_call_sync(c, kName, kPath, kName, kSyncMethod, g_variant_new("(ii)", 0x10000, 1),
                                              nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (r == nullptr) return false;
    gint32 v = -1;
    g_variant_get(r, "(i)", &v);
    g_variant_unref(r);
  }
  return true;
}

bool FireLibrary(GDBusConnection *c, int n) {
  for (int i = 0; i < n; ++i) kova_player_request_stop(1);
  return RoundTrip(c);
}

bool FireBare(GDBusConnection *c, int n) {
  for (int i = 0; i < n; ++i) {
    g_dbus_connection_call(c, kName, kPath, kName, kFireMethod, g_variant_new("(ii)", 0x10000, 1), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
  }
  return RoundTrip(c);
}

struct Mode {
  const char *name;
  bool (*run)(GDBusConnection *, int);
};
const Mode kModes[] = {{"sync-library", SyncLibrary},
                       {"sync-bare", SyncBare},
                       {"fire-library", FireLibrary},
                       {"fire-bare", FireBare}};

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
