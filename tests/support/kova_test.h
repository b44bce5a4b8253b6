// The fixture every integration test builds on: one private bus per test
// process (exported as the system bus before the library's first bus use), a
// fresh fake service per test, and the platform doubles reset.
#ifndef KOVA_TEST_KOVA_TEST_H
#define KOVA_TEST_KOVA_TEST_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "fake_kova.h"
#include "platform_doubles.h"
#include "private_bus.h"

namespace kova_test {

// The bus of this test process, started by the test environment.
const PrivateBus *TestBus();

// Iterates ctx (the global default context when null) until done() holds or
// timeout_ms passes; true when done() held. Blocks in the main loop between
// events instead of sleeping.
bool WaitUntil(const std::function<bool()> &done, int timeout_ms = 5000, GMainContext *ctx = nullptr);

// One round trip from the library's connection to the fake service: every
// message the library sent before has been received (and recorded) by the
// service, and every signal the service emitted before has reached the
// library's connection; pending dispatches on ctx are then run. This is how a
// test proves that something did not happen.
void Sync(const FakeKova &service, GMainContext *ctx = nullptr);
// The round trip alone, dispatching nothing.
void RoundTrip(const FakeKova &service);

// A command identifier as log lines print it: eight upper-case hex digits.
std::string Hex(int id);

// The calling thread's id, and whether thread tid of this process is asleep
// (blocked: in a wait, or on a lock).
pid_t ThisThread();
bool Asleep(pid_t tid);

class KovaTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  FakeKova &service() { return *service_; }
  // Lets this test call methods that are not in the service's interface file
  // (otherwise every call must match it, checked at tear-down).
  void AllowOffInterfaceCalls() { allow_off_interface_ = true; }
  // Takes the service off the bus (its name is released), after checking the
  // calls it received against the interface file.
  void StopService();
  void Sync(GMainContext *ctx = nullptr) { kova_test::Sync(*service_, ctx); }
  // Emits a signal from the service after a round trip (Sync) from the
  // library's connection: subscriptions send their match rules to the bus
  // without waiting, and the round trip makes sure the bus has them before the
  // signal is routed. Use this, not service().Emit, after subscribing.
  void Emit(const std::string &signal, GVariant *params);
  // The last call the service received for method (fails the test if none).
  Call LastCall(const std::string &method);

 private:
  void CheckInterface();

  std::unique_ptr<FakeKova> service_;
  bool allow_off_interface_ = false;
};

}  // namespace kova_test

#endif
