// What delivering one signal costs the library as its registries grow: the
// "AppRscChanged" handler with 1, 100 and 10,000 registered application ids,
// and the best-quality-zone handler with 1, 10 and 100 callbacks. One
// iteration is one signal handed to the library's handler, as GDBus hands it
// over after reading the message; the bus itself is not involved (the
// registries are filled with the library's local add functions), so only the
// library's own work is measured: type check, unpacking, the log lines, the
// lookup or the walk, and the callbacks.
//
// Without arguments (or with Google Benchmark's) it times them. Under
// callgrind, "count rsc|best SIZE SIGNALS" fills one registry and dispatches
// SIGNALS signals between zeroing and dumping the counters.
//
// Built from the library's sources (the handlers are not exported); the log
// lines go through the real log stand-in to stderr, which scripts/bench.sh
// sends to /dev/null.
#include <benchmark/benchmark.h>
#include <valgrind/callgrind.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "kova_api.h"
#include "kova_private.h"

namespace kova_bench {
namespace {

long delivered = 0;

std::string AppId(int i) {
  char id[32];
  std::snprintf(id, sizeof id, "org.example.app%05d", i);
  return id;
}

void OnResource(const char *, kova_resource *resource, void *) {
  benchmark::DoNotOptimize(resource->width);
  ++delivered;
}

// The best-quality registry knows a callback by its address: one function each.
template <size_t>
void OnSwitch(int first, int, int, void *) {
  benchmark::DoNotOptimize(first);
  ++delivered;
}

constexpr int kMaxCallbacks = 100;

template <size_t... I>
constexpr std::array<kova_best_quality_zone_switched_cb, sizeof...(I)> SwitchCallbacks(std::index_sequence<I...>) {
  return {OnSwitch<I>...};
}
constexpr auto kSwitchCallbacks = SwitchCallbacks(std::make_index_sequence<kMaxCallbacks>());

// One registry filled with size entries for the life of the object, and the
// signal that reaches exactly one of them (per-application) or all of them.
class Filled {
 public:
  Filled(bool per_app, int size) : per_app_(per_app), size_(size) {
    for (int i = 0; i < size && ok_; ++i) {
      ok_ = per_app ? _kova_add_resource_change_cb(AppId(i).c_str(), OnResource, nullptr) == 0
                    : i < kMaxCallbacks &&
                          _kova_add_best_quality_zone_switched_callback(kSwitchCallbacks[i], nullptr) == 0;
    }
    // The per-application signal names an id in the middle of the map.
    params_ = g_variant_ref_sink(per_app ? g_variant_new("(siiiii)", AppId(size / 2).c_str(), 1, 0, 1920, 1080, 60)
                                         : g_variant_new("(iii)", 2, 1, 0));
  }
  ~Filled() {
    g_variant_unref(params_);
    for (int i = 0; i < size_; ++i) {
      if (per_app_) {
        _kova_remove_resource_change_cb(AppId(i).c_str(), OnResource);
      } else if (i < kMaxCallbacks) {
        _kova_remove_best_quality_zone_switched_callback(kSwitchCallbacks[i]);
      }
    }
  }
  Filled(const Filled &) = delete;
  Filled &operator=(const Filled &) = delete;

  bool ok() const { return ok_; }
  // Callbacks one signal calls.
  long fan_out() const { return per_app_ ? 1 : size_; }
  void Dispatch() const {
    if (per_app_) {
      onRezChanged(nullptr, nullptr, nullptr, nullptr, "AppRscChanged", params_, nullptr);
    } else {
      onBestQualityZoneSwitched(nullptr, nullptr, nullptr, nullptr, "BestQualitZoneSwitched", params_, nullptr);
    }
  }

 private:
  bool per_app_;
  int size_;
  bool ok_ = true;
  GVariant *params_ = nullptr;
};

void Run(benchmark::State &state, bool per_app) {
  Filled registry(per_app, static_cast<int>(state.range(0)));
  if (!registry.ok()) {
    state.SkipWithError("could not fill the registry");
    return;
  }
  delivered = 0;
  for (auto _ : state) registry.Dispatch();
  if (delivered != static_cast<long>(state.iterations()) * registry.fan_out()) {
    state.SkipWithError("a callback was not called");
  }
}

void AppRscChangedDispatch(benchmark::State &state) { Run(state, true); }
void BestQualityDispatch(benchmark::State &state) { Run(state, false); }

BENCHMARK(AppRscChangedDispatch)->Name("app_rsc_changed_dispatch")->Arg(1)->Arg(100)->Arg(10000)->UseRealTime();
BENCHMARK(BestQualityDispatch)->Name("best_quality_dispatch")->Arg(1)->Arg(10)->Arg(kMaxCallbacks)->UseRealTime();

int Count(const char *which, int size, int signals) {
  const bool per_app = std::strcmp(which, "rsc") == 0;
  if ((!per_app && std::strcmp(which, "best") != 0) || size <= 0 || signals <= 0) {
    std::fprintf(stderr, "usage: kova-bench-dispatch count rsc|best SIZE SIGNALS\n");
    return 2;
  }
  Filled registry(per_app, size);
  if (!registry.ok()) return 1;
  registry.Dispatch();  // warm-up
  delivered = 0;
  CALLGRIND_ZERO_STATS;
  for (int i = 0; i < signals; ++i) registry.Dispatch();
  CALLGRIND_DUMP_STATS_AT("measured");
  return delivered == static_cast<long>(signals) * registry.fan_out() ? 0 : 1;
}

}  // namespace
}  // namespace kova_bench

int main(int argc, char **argv) {
  if (argc >= 2 && std::strcmp(argv[1], "count") == 0) {
    if (argc != 5) return kova_bench::Count("", 0, 0);
    return kova_bench::Count(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
