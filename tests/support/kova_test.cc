#include "kova_test.h"

#include <glib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "kova_private.h"

namespace kova_test {
namespace {

std::unique_ptr<PrivateBus> g_bus;

class BusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    std::string error;
    g_bus = PrivateBus::Start(&error);
    ASSERT_TRUE(g_bus) << error;
    g_bus->ExportAsSystemBus();
  }
  void TearDown() override {
    // The bus goes away before the process ends; the library's connection must
    // not take the process with it.
    if (g_bus) g_dbus_connection_set_exit_on_close(_kova_dbus_get_connection(), FALSE);
    g_bus.reset();
  }
};

const auto *const kRegistered = ::testing::AddGlobalTestEnvironment(new BusEnvironment);

}  // namespace

const PrivateBus *TestBus() { return g_bus.get(); }

bool WaitUntil(const std::function<bool()> &done, int timeout_ms, GMainContext *ctx) {
  if (ctx == nullptr) ctx = g_main_context_default();
  bool timed_out = false;
  GSource *timer = g_timeout_source_new(static_cast<guint>(timeout_ms));
  g_source_set_callback(
      timer,
      [](gpointer flag) -> gboolean {
        *static_cast<bool *>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &timed_out, nullptr);
  g_source_attach(timer, ctx);
  while (!done() && !timed_out) g_main_context_iteration(ctx, TRUE);
  g_source_destroy(timer);
  g_source_unref(timer);
  return done();
}

void RoundTrip(const FakeKova &service) {
  GDBusConnection *conn = _kova_dbus_get_connection();
  ASSERT_NE(conn, nullptr);
  ASSERT_TRUE(service.RoundTrip(conn, false));
}

void Sync(const FakeKova &service, GMainContext *ctx) {
  RoundTrip(service);
  Drain(ctx);
}

pid_t ThisThread() { return static_cast<pid_t>(syscall(SYS_gettid)); }

bool Asleep(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  const std::string s{std::istreambuf_iterator<char>(stat), {}};
  const size_t end = s.rfind(')');
  return end != std::string::npos && end + 2 < s.size() && s[end + 2] == 'S';
}

std::string Hex(int id) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%08X", static_cast<unsigned>(id));
  return buf;
}

void KovaTest::SetUp() {
  ASSERT_NE(TestBus(), nullptr);
  doubles::Reset();
  service_ = std::make_unique<FakeKova>(TestBus()->address());
  ASSERT_TRUE(service_->ok()) << service_->error();
}

void KovaTest::CheckInterface() {
  if (service_ && !allow_off_interface_) {
    for (const std::string &v : service_->InterfaceViolations()) ADD_FAILURE() << "off the interface: " << v;
  }
}

void KovaTest::StopService() {
  CheckInterface();
  service_.reset();
}

void KovaTest::TearDown() {
  CheckInterface();
  service_.reset();
  Drain();
}

void KovaTest::Emit(const std::string &signal, GVariant *params) {
  Sync();
  service_->Emit(signal, params);
}

Call KovaTest::LastCall(const std::string &method) {
  std::vector<Call> calls = service_->CallsTo(method);
  EXPECT_FALSE(calls.empty()) << "no call of " << method;
  return calls.empty() ? Call{} : calls.back();
}

}  // namespace kova_test

