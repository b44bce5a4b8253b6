#include "harness.h"

#include <time.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "brask.h"
#include "kova_private.h"
#include "marlo.h"
#include "ostel.h"
#include "pelk.h"
#include "tarn_system_resource.h"

namespace fuzz {

Platform platform;
int calls = 0;

namespace {

GVariant *scripted_reply = nullptr;
std::vector<Subscription> subscriptions;  // index + 1 is the id

}  // namespace

uint8_t Reader::byte() { return pos_ < size_ ? data_[pos_++] : 0; }

uint16_t Reader::u16() {
  uint16_t lo = byte();
  return static_cast<uint16_t>(lo | (byte() << 8));
}

int32_t Reader::i32() {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(byte()) << (8 * i);
  return static_cast<int32_t>(v);
}

GVariant *Reader::variant(bool rest, bool normalise) {
  const void *nul = pos_ < size_ ? std::memchr(data_ + pos_, 0, size_ - pos_) : nullptr;
  if (nul == nullptr) {
    pos_ = size_;
    return nullptr;
  }
  size_t end = static_cast<size_t>(static_cast<const uint8_t *>(nul) - data_);
  std::string_view type(reinterpret_cast<const char *>(data_ + pos_), end - pos_);
  pos_ = end + 1;
  size_t length = rest ? left() : u16();
  if (length > left()) length = left();
  const uint8_t *bytes = data_ + pos_;
  pos_ += length;

  std::string type_string(type);
  if (!g_variant_type_string_is_valid(type_string.c_str())) return nullptr;
  if (!g_variant_type_is_definite(G_VARIANT_TYPE(type_string.c_str()))) return nullptr;
  // A private, suitably aligned copy, as GDBus hands out.
  gpointer copy = g_memdup2(bytes, length);
  GVariant *v = g_variant_ref_sink(
      g_variant_new_from_data(G_VARIANT_TYPE(type_string.c_str()), copy, length, FALSE, g_free, copy));
  if (normalise) {
    // A reference of v itself when v is already normal, else a floating one.
    GVariant *normal = g_variant_take_ref(g_variant_get_normal_form(v));
    g_variant_unref(v);
    v = normal;
  }
  return v;
}

void init() {
  static bool done = false;
  if (done) return;
  done = true;
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
  // The registries ask GIO for the system bus themselves; make that fail fast.
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/kova-fuzz-bus", 1);
}

void set_reply(GVariant *reply) {
  if (scripted_reply != nullptr) g_variant_unref(scripted_reply);
  scripted_reply = reply != nullptr ? g_variant_ref(reply) : nullptr;
}

const Subscription *subscription(unsigned int id) {
  if (id == 0 || id > subscriptions.size() || subscriptions[id - 1].handler == nullptr) return nullptr;
  return &subscriptions[id - 1];
}

void check(bool cond, const char *message) {
  if (cond) return;
  std::fprintf(stderr, "kova fuzz: broken promise: %s\n", message);
  std::abort();
}

}  // namespace fuzz

// ---- The bus, as the library sees it in fuzz builds ----

extern "C" int kova_fuzz_method_call(const char *method, GVariant *args, GVariant **reply) noexcept {
  // The library's own arguments are always a tuple it built; anything else
  // would have GDBus refuse the call.
  if (args != nullptr) {
    g_variant_ref_sink(args);
    fuzz::check(g_variant_is_of_type(args, G_VARIANT_TYPE_TUPLE), "call arguments are not a tuple");
    g_variant_unref(args);
  }
  fuzz::check(method != nullptr && g_dbus_is_member_name(method), "bad method name");
  ++fuzz::calls;
  if (reply == nullptr) return 0;
  if (fuzz::scripted_reply == nullptr) return -1;
  *reply = g_variant_ref(fuzz::scripted_reply);
  return 0;
}

extern "C" unsigned int kova_fuzz_subscribe(const char *signal, GDBusSignalCallback handler, gpointer user_data,
                                            GDestroyNotify free_func) noexcept {
  fuzz::check(g_dbus_is_member_name(signal), "bad signal name");
  fuzz::subscriptions.push_back({signal, handler, user_data, free_func});
  return static_cast<unsigned int>(fuzz::subscriptions.size());
}

extern "C" void kova_fuzz_unsubscribe(unsigned int id) noexcept {
  if (id == 0 || id > fuzz::subscriptions.size()) return;
  fuzz::Subscription &s = fuzz::subscriptions[id - 1];
  if (s.handler != nullptr && s.free_func != nullptr) s.free_func(s.user_data);
  s = {};
}

// ---- Platform stand-ins ----

extern "C" {

int __marlo_print(int, int, const char *, const char *fmt, ...) {
  // Formatted (so that every log line's arguments are read) and dropped.
  char line[512];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  return n;
}

int PelkWaitEvent(const char *event_path, int) {
  if (std::strcmp(event_path, KOVA_READY_EVENT) == 0) return fuzz::platform.ready ? 0 : 1;
  if (std::strcmp(event_path, KOVA_POLICY_ACTIVATED_EVENT) == 0) return fuzz::platform.policy_active ? 0 : 1;
  return 1;
}

int resource_set_cpu_inheritance(int, const char *, int) { return 0; }
int resource_clear_cpu_inheritance(int, const char *) { return 0; }

int brask_get_active_audio_out(int player_id) { return player_id < 0 ? -1 : player_id & 3; }
int brask_unmask_category_options(int category) {
  return category < 0 ? category : category & ~BRASK_CATEGORY_OPTION_MASK;
}

bool ostel_is_video_decoder_category(int c) { return c >= 1000 && c <= 1199; }
bool ostel_is_audio_decoder_category(int c) { return c >= 2000 && c <= 2099; }
bool ostel_is_audio_out_category(int c) { return c >= 3000 && c <= 3009; }
bool ostel_is_video_scaler_category(int c) { return c >= 4000 && c <= 4009; }
bool ostel_is_mjpeg_decoder_category(int c) { return c >= 1200 && c <= 1209; }
bool ostel_is_hdmi_dedicated_scaler_category(int c) { return c == 4009; }
bool ostel_support_hdmi_dedicated_scaler(void) { return true; }
bool ostel_is_h264_interlaced_limited_model(void) { return false; }
bool ostel_is_h264_portrait_seamless_playback_limited_model(void) { return true; }

int _kova_monotonic_clock_hook(struct timespec *ts) {
  ts->tv_sec = fuzz::platform.monotonic_seconds;
  ts->tv_nsec = 0;
  return 0;
}

}  // extern "C"
