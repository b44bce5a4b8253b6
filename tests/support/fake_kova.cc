#include "fake_kova.h"

#include <chrono>

#include "platform_doubles.h"

namespace kova_test {
namespace {

// The service's interface as the library is meant to use it, loaded once.
GDBusInterfaceInfo *ServiceInterface() {
  static GDBusInterfaceInfo *info = [] {
    g_autofree gchar *xml = nullptr;
    g_autoptr(GDBusNodeInfo) node = g_file_get_contents(KOVA_INTERFACE_XML, &xml, nullptr, nullptr)
                                        ? g_dbus_node_info_new_for_xml(xml, nullptr)
                                        : nullptr;
    GDBusInterfaceInfo *iface = node ? g_dbus_node_info_lookup_interface(node, kServiceInterface) : nullptr;
    return iface ? g_dbus_interface_info_ref(iface) : nullptr;
  }();
  return info;
}

std::string CheckAgainstInterface(const Call &call) {
  GDBusInterfaceInfo *iface = ServiceInterface();
  if (iface == nullptr) return "interface file not loaded";
  GDBusMethodInfo *method = g_dbus_interface_info_lookup_method(iface, call.method.c_str());
  if (method == nullptr) return "no such method in the interface";
  std::string expected = "(";
  for (GDBusArgInfo **arg = method->in_args; arg && *arg; ++arg) expected += (*arg)->signature;
  if (expected + ")" != call.signature) return "arguments should be " + expected + ")";
  const bool no_reply =
      g_strcmp0(g_dbus_annotation_info_lookup(method->annotations, "org.freedesktop.DBus.Method.NoReply"), "true") == 0;
  if (no_reply == call.no_reply_expected) return "";
  return no_reply ? "awaits a reply from a NoReply method" : "does not await the reply";
}

}  // namespace

std::string Variant::text() const {
  g_autofree gchar *s = v_ ? g_variant_print(v_.get(), FALSE) : nullptr;
  return s ? s : "";
}
Variant Variant::child(size_t i) const {
  Variant c(g_variant_get_child_value(v_.get(), i));
  g_variant_unref(c.get());  // get_child_value gave a full reference, which the sink took over
  return c;
}
int Variant::i32(size_t i) const { return g_variant_get_int32(child(i).get()); }
unsigned int Variant::u32(size_t i) const { return g_variant_get_uint32(child(i).get()); }
std::string Variant::str(size_t i) const { return g_variant_get_string(child(i).get(), nullptr); }

FakeKova::FakeKova(const std::string &address) {
  GError *err = nullptr;
  connection_ = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &err);
  GVariant *r = nullptr;
  if (connection_ != nullptr) {
    g_dbus_connection_set_exit_on_close(connection_, FALSE);
    filter_id_ = g_dbus_connection_add_filter(connection_, &FakeKova::Filter, this, nullptr);
    r = g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "RequestName",
                                    g_variant_new("(su)", kServiceName, 4u /* DO_NOT_QUEUE */), G_VARIANT_TYPE("(u)"),
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &err);
  }
  if (r == nullptr) {
    error_ = err ? err->message : "no connection";
    g_clear_error(&err);
    return;
  }
  guint32 result = 0;
  g_variant_get(r, "(u)", &result);
  g_variant_unref(r);
  owns_name_ = result == 1;  // primary owner
  if (!owns_name_) error_ = "service name already owned";
}

FakeKova::~FakeKova() {
  for (auto &held : held_) g_object_unref(held.first);  // never answered
  if (connection_ == nullptr) return;
  g_dbus_connection_remove_filter(connection_, filter_id_);
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  g_object_unref(connection_);
}

std::string FakeKova::unique_name() const { return connection_ ? g_dbus_connection_get_unique_name(connection_) : ""; }

void FakeKova::Set(const std::string &method, Answer answer) {
  SetHandler(method, [answer](const Call &) { return answer; });
}

void FakeKova::SetHandler(const std::string &method, Handler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handlers_[method] = std::move(handler);
}

void FakeKova::Hold(const std::string &method) {
  std::lock_guard<std::mutex> lock(mutex_);
  held_methods_.insert(method);
}

void FakeKova::ReleaseHeld() {
  std::vector<std::pair<GDBusMessage *, Answer>> held;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    held_methods_.clear();
    held.swap(held_);
  }
  for (auto &[message, answer] : held) {
    Reply(message, answer);
    g_object_unref(message);
  }
}

std::vector<Call> FakeKova::Calls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

std::vector<Call> FakeKova::CallsTo(const std::string &method) const {
  std::vector<Call> out;
  for (const Call &call : Calls()) {
    if (call.method == method) out.push_back(call);
  }
  return out;
}

std::vector<std::string> FakeKova::InterfaceViolations() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return violations_;
}

bool FakeKova::WaitForCalls(size_t n, int timeout_ms) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return calls_.size() >= n; });
}

bool FakeKova::RoundTrip(GDBusConnection *from, bool drain) const {
  g_autoptr(GVariant) r = g_dbus_connection_call_sync(from, unique_name().c_str(), "/", "org.freedesktop.DBus.Peer",
                                                      "Ping", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
                                                      nullptr);
  if (drain) Drain();
  return r != nullptr;
}

void Drain(GMainContext *ctx) {
  if (ctx == nullptr) ctx = g_main_context_default();
  while (g_main_context_iteration(ctx, FALSE)) {
  }
}

void FakeKova::EmitOnPath(const std::string &path, const std::string &interface, const std::string &signal,
                          GVariant *params) {
  g_dbus_connection_emit_signal(connection_, nullptr, path.c_str(), interface.c_str(), signal.c_str(), params, nullptr);
  g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
}

// Runs in GDBus's worker thread, in the order the messages arrive, so a call is
// recorded before anything the caller sent after it is looked at.
GDBusMessage *FakeKova::Filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer self_ptr) {
  auto *self = static_cast<FakeKova *>(self_ptr);
  if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL ||
      g_strcmp0(g_dbus_message_get_interface(message), kServiceInterface) != 0) {
    return message;
  }
  GVariant *body = g_dbus_message_get_body(message);
  const char *member = g_dbus_message_get_member(message);
  Call call{member ? member : "", std::string("(") + g_dbus_message_get_signature(message) + ")",
            Variant(body != nullptr ? g_variant_ref(body) : g_variant_new("()")),
            (g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0};
  if (body != nullptr) g_variant_unref(body);  // Variant sank its own reference
  doubles::Note("call " + call.method);
  Handler handler;
  {
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->calls_.push_back(call);
    const std::string violation = CheckAgainstInterface(call);
    if (!violation.empty()) self->violations_.push_back(call.method + call.signature + ": " + violation);
    if (auto it = self->handlers_.find(call.method); it != self->handlers_.end()) handler = it->second;
  }
  self->cv_.notify_all();
  const Answer answer = handler ? handler(call) : Answer();
  if (!call.no_reply_expected) {
    std::unique_lock<std::mutex> lock(self->mutex_);
    if (self->held_methods_.count(call.method) != 0) {
      self->held_.emplace_back(static_cast<GDBusMessage *>(g_object_ref(message)), answer);
    } else {
      lock.unlock();
      self->Reply(message, answer);
    }
  }
  g_object_unref(message);
  return nullptr;
}

void FakeKova::Reply(GDBusMessage *message, const Answer &answer) {
  GDBusMessage *reply = answer.value.get() != nullptr
                            ? g_dbus_message_new_method_reply(message)
                            : g_dbus_message_new_method_error_literal(message, answer.error_name.c_str(),
                                                                      answer.error_message.c_str());
  if (answer.value.get() != nullptr) g_dbus_message_set_body(reply, answer.value.get());
  g_dbus_connection_send_message(connection_, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
  g_object_unref(reply);
}

}  // namespace kova_test
