// Shared pieces of the fuzz targets: the input reader, the bus replacement
// (scripted replies, recorded subscriptions) and the platform stand-ins'
// switches.
#ifndef KOVA_FUZZ_HARNESS_H
#define KOVA_FUZZ_HARNESS_H

#include <gio/gio.h>

#include <cstddef>
#include <cstdint>

namespace fuzz {

// Reads the fuzz input front to back; past the end every read gives zeros.
class Reader {
 public:
  Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
  uint8_t byte();
  uint16_t u16();
  int32_t i32();
  size_t left() const { return size_ - pos_; }
  // A value of an arbitrary type: a type string up to a NUL byte, then its
  // serialised bytes (all that is left when rest is set, else a u16 length and
  // that many bytes), built as GDBus would from untrusted data. Null when the
  // type string is not a valid definite type. The result is not floating.
  GVariant *variant(bool rest, bool normalise);

 private:
  const uint8_t *data_;
  size_t size_;
  size_t pos_ = 0;
};

// Aborts on any GLib warning or critical and points the library's system
// bus at nowhere; idempotent.
void init();

// Platform switches read by the stand-ins.
struct Platform {
  bool ready = true;           // the service's readiness marker
  bool policy_active = false;  // the policy-activated marker (not normal mode)
  long monotonic_seconds = 100;
};
extern Platform platform;

// The answer to every synchronous call: reply (not consumed), or a failed
// call when null. calls counts the calls made.
void set_reply(GVariant *reply);
extern int calls;

// A subscription the library made through the service link.
struct Subscription {
  const char *signal;
  GDBusSignalCallback handler;
  gpointer user_data;
  GDestroyNotify free_func;
};
// The live subscription with this id, or null.
const Subscription *subscription(unsigned int id);

// Aborts with message when cond is false: a broken library promise.
void check(bool cond, const char *message);

}  // namespace fuzz

#endif  // KOVA_FUZZ_HARNESS_H
