// Shared pieces of the fuzz targets: the input reader, the bus replacement
// (scripted replies, recorded subscriptions) and the platform switches. GLib
// warnings and criticals abort.
#ifndef KOVA_FUZZ_HARNESS_H
#define KOVA_FUZZ_HARNESS_H

#include <gio/gio.h>

#include <cstddef>
#include <cstdint>
#include <vector>

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
  GVariant *variant(bool rest);

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
};
extern Platform platform;

// Takes reply over as the answer to every synchronous call; null fails them.
void set_reply(GVariant *reply);

// The subscriptions the library made through the service link; index + 1 is
// the id, a cleared entry an unsubscribed one.
struct Subscription {
  const char *signal;
  GDBusSignalCallback handler;
  gpointer user_data;
  GDestroyNotify free_func;
};
extern std::vector<Subscription> subscriptions;

// Aborts with message when cond is false: a broken library promise.
void check(bool cond, const char *message);

}  // namespace fuzz

#endif  // KOVA_FUZZ_HARNESS_H
