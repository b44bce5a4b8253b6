// What the library costs on top of GDBus: each library call against the same
// method called with bare GDBus on the same connection, bus and service, side
// by side in one run; and command identifiers per second.
//
// The platform stand-ins are the real ones (the log line goes to stderr, which
// scripts/bench.sh sends to /dev/null); no test double is linked. Signal
// dispatch is measured in bench_dispatch.cc.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "bench_env.h"
#include "kova_api.h"
#include "kova_private.h"

namespace kova_bench {
namespace {

// Library and bare calls alternate in blocks, each block timed on its own, so
// that both variants meet the same load of a busy machine; the order within a
// pair alternates too. Reported per repetition: the median time per call of
// each variant and the median of the pairs' ratios (library over bare).
constexpr int kSyncBlock = 10;
// Fire-and-forget blocks end with a round trip to the service, so that a call
// counts once the service has received it.
constexpr int kFireBlock = 200;

GDBusConnection *Connection() { return _kova_dbus_get_connection(); }

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

using Calls = bool (*)(GDBusConnection *, int);

// Nanoseconds per call of one timed block, or a negative value on failure.
double TimeBlock(Calls block, GDBusConnection *c, int calls) {
  const auto start = std::chrono::steady_clock::now();
  if (!block(c, calls)) return -1;
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() / calls;
}

void Paired(benchmark::State &state, Calls library, Calls bare, int calls, bool rate) {
  GDBusConnection *c = Connection();
  std::vector<double> lib_ns, bare_ns, ratios;
  bool library_first = true;
  for (auto _ : state) {
    double l = 0, b = 0;
    if (library_first) {
      l = TimeBlock(library, c, calls);
      b = TimeBlock(bare, c, calls);
    } else {
      b = TimeBlock(bare, c, calls);
      l = TimeBlock(library, c, calls);
    }
    library_first = !library_first;
    if (l < 0 || b < 0) {
      state.SkipWithError("call failed");
      break;
    }
    lib_ns.push_back(l);
    bare_ns.push_back(b);
    // Time ratio for calls that wait; throughput ratio for calls that do not.
    ratios.push_back(rate ? b / l : l / b);
  }
  if (rate) {
    state.counters["library_per_s"] = 1e9 / Median(lib_ns);
    state.counters["bare_per_s"] = 1e9 / Median(bare_ns);
  } else {
    state.counters["library_us"] = Median(lib_ns) / 1000;
    state.counters["bare_us"] = Median(bare_ns) / 1000;
  }
  state.counters["ratio"] = Median(ratios);
  state.counters["pairs"] = static_cast<double>(ratios.size());
}

void SyncCall(benchmark::State &state) { Paired(state, SyncLibrary, SyncBare, kSyncBlock, false); }
void FireAndForget(benchmark::State &state) { Paired(state, FireLibrary, FireBare, kFireBlock, true); }

void CommandId(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(_kova_get_command_id());
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(SyncCall)->Name("sync_call")->MinTime(2.0)->UseRealTime();
BENCHMARK(FireAndForget)->Name("fire_and_forget")->MinTime(2.0)->UseRealTime();
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
