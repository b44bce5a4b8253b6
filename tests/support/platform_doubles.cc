#include "platform_doubles.h"

#include <dlfcn.h>
#include <time.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

namespace doubles {
namespace {

struct State {
  std::mutex mutex;
  std::vector<LogLine> logs;
  std::map<std::string, bool> markers;
  std::vector<std::pair<std::string, int>> pelk_calls;
  std::vector<std::string> timeline;
  int mask = 1;
  std::vector<int> audio_out_queries;
  int option_mask = 0;
  std::map<Predicate, std::set<int>> categories;
  bool model[3] = {};  // HDMI-dedicated scaler, H.264 interlaced limited, H.264 portrait limited
};

std::atomic<long> monotonic_seconds{-1};  // -1: the real clock

State &state() {
  static State *s = new State();  // outlives every static destructor
  return *s;
}

// Runs f on the state under its lock and returns what it returns.
template <typename F>
auto Locked(F f) {
  std::lock_guard<std::mutex> lock(state().mutex);
  return f(state());
}

}  // namespace

void Reset() {
  Locked([](State &s) {
    s.logs.clear();
    s.markers = {{"/tmp/.kova_ready", true}, {"/tmp/.rsc_policy_activated", false}};
    s.pelk_calls.clear();
    s.timeline.clear();
    s.mask = 1;
    s.audio_out_queries.clear();
    s.option_mask = 0;
    s.categories.clear();
    s.model[0] = s.model[1] = s.model[2] = false;
  });
  monotonic_seconds = -1;
}

std::vector<LogLine> Logs() {
  return Locked([](State &s) { return s.logs; });
}

std::vector<std::string> Messages() {
  std::vector<std::string> out;
  for (const LogLine &line : Logs()) out.push_back(line.message);
  return out;
}

int CountLogPrefix(const std::string &prefix, int priority) {
  int n = 0;
  for (const LogLine &line : Logs()) n += line.message.rfind(prefix, 0) == 0 && (priority == 0 || line.priority == priority);
  return n;
}

int CountLog(const std::string &message, int priority) {
  int n = 0;
  for (const LogLine &line : Logs()) n += line.message == message && (priority == 0 || line.priority == priority);
  return n;
}

bool HasLog(const std::string &message, int priority) { return CountLog(message, priority) > 0; }

void SetMarker(const std::string &path, bool present) {
  Locked([&](State &s) { return s.markers[path] = present; });
}
std::vector<std::pair<std::string, int>> PelkCalls() {
  return Locked([](State &s) { return s.pelk_calls; });
}
void Note(const std::string &event) {
  Locked([&](State &s) { s.timeline.push_back(event); });
}
std::vector<std::string> Timeline() {
  return Locked([](State &s) { return s.timeline; });
}
void SetActiveAudioOutMask(int mask) {
  Locked([&](State &s) { return s.mask = mask; });
}
std::vector<int> AudioOutQueries() {
  return Locked([](State &s) { return s.audio_out_queries; });
}
void SetOptionMask(int mask) {
  Locked([&](State &s) { return s.option_mask = mask; });
}
void SetCategories(Predicate predicate, std::set<int> categories) {
  Locked([&](State &s) { s.categories[predicate] = std::move(categories); });
}
void SetModel(bool hdmi, bool interlaced, bool portrait) {
  Locked([&](State &s) {
    s.model[0] = hdmi;
    s.model[1] = interlaced;
    s.model[2] = portrait;
  });
}
void SetMonotonicSeconds(long seconds) { monotonic_seconds = seconds; }

}  // namespace doubles

using doubles::Locked;
using doubles::Predicate;
using doubles::State;

// The platform interfaces, exported from the test executable so that they take
// precedence over the stand-in libraries for libkova-api.
#define KOVA_DOUBLE extern "C" __attribute__((visibility("default")))

KOVA_DOUBLE int __marlo_print(int buffer_id, int priority, const char *tag, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char *text = nullptr;
  const int n = vasprintf(&text, fmt, ap);
  va_end(ap);
  if (n < 0) return n;
  doubles::LogLine line{buffer_id, priority, tag ? tag : "", text, ""};
  std::free(text);
  const size_t gt = line.text.find(") > ");
  line.message = gt == std::string::npos ? line.text : line.text.substr(gt + 4);
  if (std::getenv("KOVA_TEST_VERBOSE") != nullptr) std::fprintf(stderr, "[log %d] %s\n", priority, line.text.c_str());
  Locked([&](State &s) { s.logs.push_back(std::move(line)); });
  return n;
}

KOVA_DOUBLE int PelkWaitEvent(const char *event_path, int timeout_ms) {
  return Locked([&](State &s) {
    s.pelk_calls.emplace_back(event_path ? event_path : "", timeout_ms);
    return s.markers[event_path ? event_path : ""] ? 0 : 1;
  });
}

KOVA_DOUBLE int resource_set_cpu_inheritance(int tid, const char *process, int timeout_ms) {
  doubles::Note("set " + std::to_string(tid) + " " + (process ? process : "") + " " + std::to_string(timeout_ms));
  return 0;
}

KOVA_DOUBLE int resource_clear_cpu_inheritance(int tid, const char *process) {
  doubles::Note("clear " + std::to_string(tid) + " " + (process ? process : ""));
  return 0;
}

KOVA_DOUBLE int brask_get_active_audio_out(int player_id) {
  return Locked([&](State &s) {
    s.audio_out_queries.push_back(player_id);
    return s.mask;
  });
}

KOVA_DOUBLE int brask_unmask_category_options(int category) {
  return Locked([&](State &s) { return category & ~s.option_mask; });
}

#define KOVA_CATEGORY(function, predicate)                                            \
  KOVA_DOUBLE bool function(int category) {                                          \
    return Locked([&](State &s) { return s.categories[predicate].count(category) != 0; }); \
  }
KOVA_CATEGORY(ostel_is_video_decoder_category, Predicate::kVideoDecoder)
KOVA_CATEGORY(ostel_is_audio_decoder_category, Predicate::kAudioDecoder)
KOVA_CATEGORY(ostel_is_audio_out_category, Predicate::kAudioOut)
KOVA_CATEGORY(ostel_is_video_scaler_category, Predicate::kVideoScaler)
KOVA_CATEGORY(ostel_is_mjpeg_decoder_category, Predicate::kMjpegDecoder)
KOVA_CATEGORY(ostel_is_hdmi_dedicated_scaler_category, Predicate::kHdmiDedicatedScaler)

#define KOVA_MODEL(function, index) \
  KOVA_DOUBLE bool function(void) { return Locked([](State &s) { return s.model[index]; }); }
KOVA_MODEL(ostel_support_hdmi_dedicated_scaler, 0)
KOVA_MODEL(ostel_is_h264_interlaced_limited_model, 1)
KOVA_MODEL(ostel_is_h264_portrait_seamless_playback_limited_model, 2)

// The monotonic clock as libkova-api reads it. Calls from anywhere else (GLib's
// main loop, the tests) get the real clock.
KOVA_DOUBLE int clock_gettime(clockid_t id, struct timespec *ts) {
  using Clock = int (*)(clockid_t, struct timespec *);
  static const auto real = reinterpret_cast<Clock>(dlsym(RTLD_NEXT, "clock_gettime"));
  const long fake = doubles::monotonic_seconds;
  Dl_info caller;
  if (fake >= 0 && id == CLOCK_MONOTONIC && dladdr(__builtin_return_address(0), &caller) != 0 &&
      caller.dli_fname != nullptr && std::strstr(caller.dli_fname, "libkova-api") != nullptr) {
    *ts = {fake, 999999999};  // just before a whole second, so that rounding up would show
    return 0;
  }
  return real(id, ts);
}
