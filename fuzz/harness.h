// The harness every fuzz target includes (each target is its own executable):
// the input reader, the bus replacement (scripted replies, recorded
// subscriptions), the platform switches, and the replay driver for builds
// without libFuzzer. GLib warnings and criticals abort.
#ifndef KOVA_FUZZ_HARNESS_H
#define KOVA_FUZZ_HARNESS_H

#include <gio/gio.h>
#include <time.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kova_private.h"
#include "marlo.h"
#include "pelk.h"

namespace fuzz {

// Reads the input front to back; past the end every read gives zeros.
class Reader {
 public:
  Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
  uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  size_t left() const { return size_ - pos_; }
  // A type string up to a NUL byte, then the serialised value (all that is
  // left when rest is set, else a u16 length and that many bytes), built as
  // GDBus builds untrusted data. Null for an invalid or indefinite type.
  GVariant *variant(bool rest) {
    if (pos_ >= size_ || std::memchr(data_ + pos_, 0, size_ - pos_) == nullptr) {
      pos_ = size_;
      return nullptr;
    }
    const std::string type(reinterpret_cast<const char *>(data_ + pos_));  // up to the NUL
    pos_ += type.size() + 1;
    size_t length = left();
    if (!rest) {
      length = byte();
      length |= static_cast<size_t>(byte()) << 8;
    }
    length = std::min(length, left());
    const uint8_t *bytes = data_ + pos_;
    pos_ += length;
    if (!g_variant_type_string_is_valid(type.c_str()) || !g_variant_type_is_definite(G_VARIANT_TYPE(type.c_str()))) {
      return nullptr;
    }
    // A private, suitably aligned copy, as GDBus hands out.
    gpointer copy = g_memdup2(bytes, length);
    return g_variant_ref_sink(g_variant_new_from_data(G_VARIANT_TYPE(type.c_str()), copy, length, FALSE, g_free, copy));
  }

 private:
  const uint8_t *data_;
  size_t size_;
  size_t pos_ = 0;
};

// Read by the platform stand-ins: the service's readiness marker, the
// policy-activated marker (not normal mode) and the monotonic clock.
struct Platform {
  bool ready = true;
  bool policy_active = false;
  long monotonic_seconds = 100;
} platform;

// The answer to every synchronous call; null fails them.
GVariant *scripted_reply = nullptr;
void set_reply(GVariant *reply) {
  if (scripted_reply != nullptr) g_variant_unref(scripted_reply);
  scripted_reply = reply;
}

// The subscriptions the library made through the service link; index + 1 is
// the id, a cleared entry an unsubscribed one.
struct Subscription {
  const char *signal;
  GDBusSignalCallback handler;
  gpointer user_data;
  GDestroyNotify free_func;
};
std::vector<Subscription> subscriptions;

// Aborts with message when cond is false: a broken library promise.
void check(bool cond, const char *message) {
  if (cond) return;
  std::fprintf(stderr, "kova fuzz: broken promise: %s\n", message);
  std::abort();
}

// GLib warnings and criticals are fatal; the system bus, which the registries
// ask GIO for themselves, fails fast.
[[maybe_unused]] const bool initialised = [] {
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/kova-fuzz-bus", 1);
  return true;
}();

}  // namespace fuzz

extern "C" {

// ---- The bus, as the library sees it in fuzz builds ----

int kova_fuzz_method_call(const char *method, GVariant *args, GVariant **reply) noexcept {
  // GDBus would refuse arguments that are not a tuple.
  if (args != nullptr) {
    g_variant_ref_sink(args);
    fuzz::check(g_variant_is_of_type(args, G_VARIANT_TYPE_TUPLE), "call arguments are not a tuple");
    g_variant_unref(args);
  }
  fuzz::check(method != nullptr && g_dbus_is_member_name(method), "bad method name");
  if (reply == nullptr) return 0;
  if (fuzz::scripted_reply == nullptr) return -1;
  *reply = g_variant_ref(fuzz::scripted_reply);
  return 0;
}

unsigned int kova_fuzz_subscribe(const char *signal, GDBusSignalCallback handler, gpointer user_data,
                                 GDestroyNotify free_func) noexcept {
  fuzz::check(g_dbus_is_member_name(signal), "bad signal name");
  fuzz::subscriptions.push_back({signal, handler, user_data, free_func});
  return static_cast<unsigned int>(fuzz::subscriptions.size());
}

void kova_fuzz_unsubscribe(unsigned int id) noexcept {
  if (id == 0 || id > fuzz::subscriptions.size()) return;
  fuzz::Subscription &s = fuzz::subscriptions[id - 1];
  if (s.handler != nullptr && s.free_func != nullptr) s.free_func(s.user_data);
  s = {};
}

// ---- Platform stand-ins (the others come from platform/) ----

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

time_t kova_fuzz_monotonic_seconds(void) noexcept { return fuzz::platform.monotonic_seconds; }

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

}  // extern "C"

#ifdef KOVA_FUZZ_REPLAY
#include <filesystem>
#include <fstream>
#include <iterator>

// Runs the target over input files and directories of them (the corpus replay in the ordinary test suite).
int main(int argc, char **argv) {
  std::vector<std::filesystem::path> inputs(argv + 1, argv + argc);
  for (size_t i = 0; i < inputs.size(); ++i) {
    if (std::filesystem::is_directory(inputs[i])) {
      inputs.insert(inputs.end(), std::filesystem::directory_iterator(inputs[i]), {});
      continue;
    }
    std::ifstream f(inputs[i], std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    if (!f) {
      std::fprintf(stderr, "cannot read %s\n", inputs[i].c_str());
      return 1;
    }
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  return inputs.empty() ? 1 : 0;
}
#endif

#endif  // KOVA_FUZZ_HARNESS_H
