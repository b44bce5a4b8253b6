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

struct MarkerState {
  Marker state = Marker::kAbsent;
  int after_ms = 0;
};

struct State {
  std::mutex mutex;
  std::vector<LogLine> logs;
  std::map<std::string, MarkerState> markers;
  std::vector<PelkCall> pelk_calls;
  std::vector<std::string> timeline;
  int mask = 1;
  std::vector<int> audio_out_queries;
  int option_mask = 0;
  std::map<Predicate, std::set<int>> categories;
  bool support_hdmi = false;
  bool h264_interlaced = false;
  bool h264_portrait = false;
};

std::atomic<long> monotonic_seconds{-1};  // -1: the real clock

State &state() {
  static State *s = new State();  // outlives every static destructor
  return *s;
}

bool verbose() {
  static const bool v = std::getenv("KOVA_TEST_VERBOSE") != nullptr;
  return v;
}

bool has_category(Predicate p, int category) {
  State &s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.categories[p].count(category) != 0;
}

bool model_flag(bool State::*flag) {
  State &s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.*flag;
}

}  // namespace

void Reset() {
  State &s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.logs.clear();
  s.markers.clear();
  s.markers["/tmp/.kova_ready"] = {Marker::kPresent, 0};
  s.markers["/tmp/.rsc_policy_activated"] = {Marker::kAbsent, 0};
  s.pelk_calls.clear();
  s.timeline.clear();
  s.mask = 1;
  s.audio_out_queries.clear();
  s.option_mask = 0;
  s.categories.clear();
  s.support_hdmi = false;
  s.h264_interlaced = false;
  s.h264_portrait = false;
  monotonic_seconds = -1;
}

void SetMonotonicSeconds(long seconds) { monotonic_seconds = seconds; }

std::vector<LogLine> Logs() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().logs;
}

std::vector<std::string> Messages() {
  std::vector<std::string> out;
  for (const LogLine &line : Logs()) out.push_back(line.message);
  return out;
}

int CountLog(const std::string &message, int priority) {
  int n = 0;
  for (const LogLine &line : Logs()) {
    if (line.message == message && (priority == 0 || line.priority == priority)) ++n;
  }
  return n;
}

bool HasLog(const std::string &message, int priority) { return CountLog(message, priority) > 0; }

int CountLogPrefix(const std::string &prefix, int priority) {
  int n = 0;
  for (const LogLine &line : Logs()) {
    if (line.message.rfind(prefix, 0) == 0 && (priority == 0 || line.priority == priority)) ++n;
  }
  return n;
}

void SetMarker(const std::string &path, Marker marker, int after_ms) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().markers[path] = {marker, after_ms};
}

std::vector<PelkCall> PelkCalls() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().pelk_calls;
}

void Note(const std::string &event) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().timeline.push_back(event);
}

std::vector<std::string> Timeline() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().timeline;
}

void SetActiveAudioOutMask(int mask) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().mask = mask;
}

std::vector<int> AudioOutQueries() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().audio_out_queries;
}

void SetOptionMask(int mask) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().option_mask = mask;
}

void SetCategories(Predicate predicate, std::set<int> categories) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().categories[predicate] = std::move(categories);
}

void SetSupportHdmiDedicatedScaler(bool value) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().support_hdmi = value;
}

void SetH264InterlacedLimited(bool value) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().h264_interlaced = value;
}

void SetH264PortraitSeamlessLimited(bool value) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().h264_portrait = value;
}

}  // namespace doubles

using doubles::Predicate;

// The platform interfaces, exported from the test executable so that they take
// precedence over the stand-in libraries for libkova-api.
extern "C" {

__attribute__((visibility("default"))) int __marlo_print(int buffer_id, int priority, const char *tag,
                                                          const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char *text = nullptr;
  int n = vasprintf(&text, fmt, ap);
  va_end(ap);
  if (n < 0) return n;
  doubles::LogLine line;
  line.buffer = buffer_id;
  line.priority = priority;
  line.tag = tag ? tag : "";
  line.text = text;
  std::free(text);
  std::string::size_type gt = line.text.find(") > ");
  line.message = gt == std::string::npos ? line.text : line.text.substr(gt + 4);
  if (doubles::verbose()) std::fprintf(stderr, "[log %d] %s\n", priority, line.text.c_str());
  std::lock_guard<std::mutex> lock(doubles::state().mutex);
  doubles::state().logs.push_back(std::move(line));
  return n;
}

__attribute__((visibility("default"))) int PelkWaitEvent(const char *event_path, int timeout_ms) {
  doubles::State &s = doubles::state();
  std::lock_guard<std::mutex> lock(s.mutex);
  std::string path = event_path ? event_path : "";
  s.pelk_calls.push_back({path, timeout_ms});
  auto it = s.markers.find(path);
  if (it == s.markers.end()) return 1;
  switch (it->second.state) {
    case doubles::Marker::kPresent:
      return 0;
    case doubles::Marker::kAbsent:
      return 1;
    case doubles::Marker::kPresentAfter:
      return timeout_ms >= it->second.after_ms ? 0 : 1;
  }
  return 1;
}

__attribute__((visibility("default"))) int resource_set_cpu_inheritance(int source_tid, const char *dest_process,
                                                                         int timeout_ms) {
  doubles::Note("set " + std::to_string(source_tid) + " " + (dest_process ? dest_process : "") + " " +
                std::to_string(timeout_ms));
  return 0;
}

__attribute__((visibility("default"))) int resource_clear_cpu_inheritance(int source_tid, const char *dest_process) {
  doubles::Note("clear " + std::to_string(source_tid) + " " + (dest_process ? dest_process : ""));
  return 0;
}

__attribute__((visibility("default"))) int brask_get_active_audio_out(int player_id) {
  std::lock_guard<std::mutex> lock(doubles::state().mutex);
  doubles::state().audio_out_queries.push_back(player_id);
  return doubles::state().mask;
}

__attribute__((visibility("default"))) int brask_unmask_category_options(int category) {
  std::lock_guard<std::mutex> lock(doubles::state().mutex);
  return category & ~doubles::state().option_mask;
}

__attribute__((visibility("default"))) bool ostel_is_video_decoder_category(int category) {
  return doubles::has_category(Predicate::kVideoDecoder, category);
}
__attribute__((visibility("default"))) bool ostel_is_audio_decoder_category(int category) {
  return doubles::has_category(Predicate::kAudioDecoder, category);
}
__attribute__((visibility("default"))) bool ostel_is_audio_out_category(int category) {
  return doubles::has_category(Predicate::kAudioOut, category);
}
__attribute__((visibility("default"))) bool ostel_is_video_scaler_category(int category) {
  return doubles::has_category(Predicate::kVideoScaler, category);
}
__attribute__((visibility("default"))) bool ostel_is_mjpeg_decoder_category(int category) {
  return doubles::has_category(Predicate::kMjpegDecoder, category);
}
__attribute__((visibility("default"))) bool ostel_is_hdmi_dedicated_scaler_category(int category) {
  return doubles::has_category(Predicate::kHdmiDedicatedScaler, category);
}
__attribute__((visibility("default"))) bool ostel_support_hdmi_dedicated_scaler(void) {
  return doubles::model_flag(&doubles::State::support_hdmi);
}
__attribute__((visibility("default"))) bool ostel_is_h264_interlaced_limited_model(void) {
  return doubles::model_flag(&doubles::State::h264_interlaced);
}
__attribute__((visibility("default"))) bool ostel_is_h264_portrait_seamless_playback_limited_model(void) {
  return doubles::model_flag(&doubles::State::h264_portrait);
}

// The monotonic clock as libkova-api reads it. Calls from anywhere else (GLib's
// main loop, the tests) get the real clock.
__attribute__((visibility("default"))) int clock_gettime(clockid_t id, struct timespec *ts) {
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

}  // extern "C"
