// A scriptable kova service for tests: owns the service's bus name on its own
// connection and thread, records every method call it receives and answers as
// the test scripted; emits any signal a test asks for.
#ifndef KOVA_TEST_FAKE_KOVA_H
#define KOVA_TEST_FAKE_KOVA_H

#include <gio/gio.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kova_test {

inline constexpr const char *kServiceName = "org.zelta.tv.system.resource";
inline constexpr const char *kServicePath = "/Org/Zelta/TV/System/Resource";
inline constexpr const char *kServiceInterface = "org.zelta.tv.system.resource";

// A counted reference to a GVariant that copies like a value.
class Variant {
 public:
  Variant() = default;
  explicit Variant(GVariant *v) : v_(v ? g_variant_ref_sink(v) : nullptr) {}
  Variant(const Variant &o) : v_(o.v_ ? g_variant_ref(o.v_) : nullptr) {}
  Variant(Variant &&o) noexcept : v_(o.v_) { o.v_ = nullptr; }
  Variant &operator=(Variant o) {
    std::swap(v_, o.v_);
    return *this;
  }
  ~Variant() {
    if (v_) g_variant_unref(v_);
  }
  GVariant *get() const { return v_; }
  explicit operator bool() const { return v_ != nullptr; }
  // GVariant text form without type annotations, e.g. "(65536, 7, 'app')".
  std::string text() const;
  std::string type() const { return v_ ? g_variant_get_type_string(v_) : ""; }
  // Child i of a tuple, and the int32 / uint32 / string value of a child.
  Variant child(size_t i) const;
  int i32(size_t i) const;
  unsigned int u32(size_t i) const;
  std::string str(size_t i) const;

 private:
  GVariant *v_ = nullptr;
};

struct Call {
  std::string method;
  std::string path;
  std::string signature;  // of the arguments, as a tuple type, e.g. "(iii)"
  Variant args;
  bool no_reply_expected = false;
  std::string sender;
};

// What the service answers to one call.
struct Answer {
  enum class Kind { kValue, kError, kUnknownMethod } kind = Kind::kUnknownMethod;
  Variant value;
  std::string error_name;
  std::string error_message;

  static Answer Value(GVariant *v);
  static Answer Int(int v);
  static Answer Error(const std::string &name, const std::string &message);
};

class FakeKova {
 public:
  using Handler = std::function<Answer(const Call &)>;

  // Connects to the bus at address and owns the service name. Check ok().
  explicit FakeKova(const std::string &address);
  ~FakeKova();
  FakeKova(const FakeKova &) = delete;
  FakeKova &operator=(const FakeKova &) = delete;

  bool ok() const { return connection_ != nullptr && owns_name_; }
  const std::string &error() const { return error_; }
  GDBusConnection *connection() const { return connection_; }
  std::string unique_name() const;

  // Scripts: a method without a script gets "no such method".
  void Set(const std::string &method, Answer answer);
  void SetInt(const std::string &method, int value) { Set(method, Answer::Int(value)); }
  void SetHandler(const std::string &method, Handler handler);

  // Calls to method are recorded but their answers are held back until
  // ReleaseHeld(), so that a test can act while the caller waits for the
  // service (a handler must not block: it runs on GDBus's shared worker).
  void Hold(const std::string &method);
  // Sends the held answers (as scripted when each call arrived) and stops
  // holding.
  void ReleaseHeld();

  std::vector<Call> Calls() const;
  std::vector<Call> CallsTo(const std::string &method) const;
  size_t CallCount() const;
  // Waits (on a condition variable, not the main loop) until at least n calls
  // were received.
  bool WaitForCalls(size_t n, int timeout_ms = 5000) const;

  // Calls that do not match the service's interface file: an unknown method,
  // other argument types, or a reply awaited against the NoReply annotation
  // (or not awaited without it). One "Method(signature): reason" each.
  std::vector<std::string> InterfaceViolations() const;

  // Emits a signal of the service's interface and object path from the
  // service's connection; params is sunk.
  void Emit(const std::string &signal, GVariant *params);
  void EmitOnPath(const std::string &path, const std::string &interface, const std::string &signal,
                  GVariant *params);

 private:
  static GDBusMessage *Filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer self);
  void Run();
  void Answer_(GDBusMessage *message, const Answer &answer);

  std::string address_;
  std::string error_;
  GMainContext *context_ = nullptr;
  GMainLoop *loop_ = nullptr;
  std::thread thread_;
  GDBusConnection *connection_ = nullptr;
  bool owns_name_ = false;
  guint filter_id_ = 0;

  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  std::vector<Call> calls_;
  std::vector<std::string> violations_;
  std::map<std::string, Handler> handlers_;
  std::set<std::string> held_methods_;
  std::vector<std::pair<GDBusMessage *, Answer>> held_;
};

}  // namespace kova_test

#endif
