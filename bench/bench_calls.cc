// What the library costs on top of GDBus: each library call against the same
// method called with bare GDBus on the same connection, bus and service, side
// by side in one run; and command identifiers per second.
//
// The platform stand-ins are the real ones (the log line goes to stderr, which
// scripts/bench.sh sends to /dev/null); no test double is linked.
//
// Benchmarks of the shared registries' dispatch join this file under the
// names scripts/bench.sh looks for: "app_rsc_changed_dispatch/<ids>" for
// "AppRscChanged" with 1, 100 and 10,000 registered application ids, and
// "best_quality_dispatch/<callbacks>" for "BestQualitZoneSwitched" with 1, 10
// and 100 callbacks.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "bench_env.h"
#include "kova_api.h"
#include "kova_private.h"

namespace kova_bench {
namespace {

// Fire-and-forget calls per measured batch; each batch ends with a round trip
// to the service, so that a batch counts only once the service has it.
constexpr int kBatch = 1000;

GDBusConnection *Connection() { return _kova_dbus_get_connection(); }

bool RoundTrip(GDBusConnection *c) {
  GVariant *r = g_dbus_connection_call_sync(c, kName, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  if (r == nullptr) return false;
  g_variant_unref(r);
  return true;
}

void SyncLibrary(benchmark::State &state) {
  for (auto _ : state) {
    if (kova_player_video_start_done(1) != 0) {
      state.SkipWithError("call failed");
      break;
    }
  }
}

void SyncBare(benchmark::State &state) {
  GDBusConnection *c = Connection();
  for (auto _ : state) {
    GVariant *r = g_dbus_connection_call_sync(c, kName, kPath, kName, kSyncMethod, g_variant_new("(ii)", 0x10000, 1),
                                              nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (r == nullptr) {
      state.SkipWithError("call failed");
      break;
    }
    gint32 v = -1;
    g_variant_get(r, "(i)", &v);
    g_variant_unref(r);
    benchmark::DoNotOptimize(v);
  }
}

void FireLibrary(benchmark::State &state) {
  GDBusConnection *c = Connection();
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) kova_player_request_stop(1);
    if (!RoundTrip(c)) {
      state.SkipWithError("round trip failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void FireBare(benchmark::State &state) {
  GDBusConnection *c = Connection();
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      g_dbus_connection_call(c, kName, kPath, kName, kFireMethod, g_variant_new("(ii)", 0x10000, 1), nullptr,
                             G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    }
    if (!RoundTrip(c)) {
      state.SkipWithError("round trip failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void CommandId(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(_kova_get_command_id());
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(SyncLibrary)->Name("sync_call/library")->UseRealTime();
BENCHMARK(SyncBare)->Name("sync_call/bare")->UseRealTime();
BENCHMARK(FireLibrary)->Name("fire_and_forget/library")->UseRealTime();
BENCHMARK(FireBare)->Name("fire_and_forget/bare")->UseRealTime();
BENCHMARK(CommandId)->Name("command_id")->Threads(1)->Threads(4)->UseRealTime();

}  // namespace
}  // namespace kova_bench

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::string error;
  std::unique_ptr<kova_bench::BenchBus> env = kova_bench::BenchBus::Start(&error);
  if (!env) {
    std::fprintf(stderr, "kova-bench: %s\n", error.c_str());
    return 1;
  }
  // Connect and warm up before anything is measured.
  if (kova_player_video_start_done(1) != 0) {
    std::fprintf(stderr, "kova-bench: the echo service does not answer\n");
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  g_dbus_connection_set_exit_on_close(_kova_dbus_get_connection(), FALSE);
  return 0;
}
