// A scriptable kova service for tests: owns the service's bus name on its own
// connection, records every method call it receives (checked against the
// interface file) and answers as the test scripted; emits any signal a test
// asks for.
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
#include <vector>

namespace kova_test {

inline constexpr const char *kServiceName = "org.zelta.tv.system.resource";
inline constexpr const char *kServicePath = "/Org/Zelta/TV/System/Resource";
inline constexpr const char *kServiceInterface = "org.zelta.tv.system.resource";

// A counted reference to a GVariant that copies like a value.
class Variant {
 public:
  Variant() = default;
  explicit Variant(GVariant *v) : v_(v ? g_variant_ref_sink(v) : nullptr, [](GVariant *p) { g_variant_unref(p); }) {}
  GVariant *get() const { return v_.get(); }
  // GVariant text form without type annotations, e.g. "(65536, 7, 'app')".
  std::string text() const;
  // The int32 / uint32 / string value of child i of a tuple.
  int i32(size_t i) const;
  unsigned int u32(size_t i) const;
  std::string str(size_t i) const;

 private:
  Variant child(size_t i) const;
  std::shared_ptr<GVariant> v_;
};

struct Call {
  std::string method;
  std::string signature;  // of the arguments, as a tuple type, e.g. "(iii)"
  Variant args;
  bool no_reply_expected = false;
};

// What the service answers to one call: a value, an error, or (unscripted) no such method.
struct Answer {
  Variant value;
  std::string error_name = "org.freedesktop.DBus.Error.UnknownMethod", error_message = "no such method";
  static Answer Value(GVariant *v) { return Answer{Variant(v), "", ""}; }
  static Answer Int(int v) { return Value(g_variant_new("(i)", v)); }
  static Answer Error(const std::string &name, const std::string &message) { return Answer{Variant(), name, message}; }
};

// Dispatches everything already pending on ctx (the global default context when null).
void Drain(GMainContext *ctx = nullptr);

class FakeKova {
 public:
  using Handler = std::function<Answer(const Call &)>;

  // Connects to the bus at address and owns the service name. Check ok().
  explicit FakeKova(const std::string &address);
  ~FakeKova();
  FakeKova(const FakeKova &) = delete;
  FakeKova &operator=(const FakeKova &) = delete;

  bool ok() const { return owns_name_; }
  const std::string &error() const { return error_; }
  GDBusConnection *connection() const { return connection_; }
  std::string unique_name() const;

  // Scripts: a method without a script gets "no such method".
  void Set(const std::string &method, Answer answer);
  void SetInt(const std::string &method, int value) { Set(method, Answer::Int(value)); }
  void SetHandler(const std::string &method, Handler handler);

  // Calls to method are recorded but their answers are held back until
  // ReleaseHeld(), so that a test can act while the caller waits.
  void Hold(const std::string &method);
  void ReleaseHeld();

  std::vector<Call> Calls() const;
  std::vector<Call> CallsTo(const std::string &method) const;
  size_t CallCount() const { return Calls().size(); }
  // Waits (on a condition variable) until at least n calls were received.
  bool WaitForCalls(size_t n, int timeout_ms = 5000) const;

  // Calls that do not match the interface file: an unknown method, other
  // argument types, or a reply awaited against the NoReply annotation (or not
  // awaited without it). One "Method(signature): reason" each.
  std::vector<std::string> InterfaceViolations() const;

  // One round trip (a Ping) from the connection `from` to the service: everything either sent before has
  // arrived. Then, when drain is set, everything pending on the default main context is dispatched (Drain).
  bool RoundTrip(GDBusConnection *from, bool drain = true) const;

  // Emits a signal (params is sunk) from the service's connection.
  void Emit(const std::string &signal, GVariant *params) { EmitOnPath(kServicePath, kServiceInterface, signal, params); }
  void EmitOnPath(const std::string &path, const std::string &interface, const std::string &signal,
                  GVariant *params);

 private:
  static GDBusMessage *Filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer self);
  void Reply(GDBusMessage *message, const Answer &answer);

  std::string error_;
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
