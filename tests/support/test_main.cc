// The main of every test executable of the library: a GLib critical is a
// failed test, also when the binary runs outside CTest.
#include <glib.h>
#include <gtest/gtest.h>

int main(int argc, char **argv) {
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR));
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
