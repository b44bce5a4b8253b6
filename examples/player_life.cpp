// A player's life in C++: lambdas for the service's requests, subscriptions
// that undo themselves, and a fresh registration each time the kova service
// (re)appears, since a restarted service has forgotten every registration.
//
// usage: player_life_cpp [player-id [runs]]
//   plays once per appearance of the service and ends after `runs` of them
//   (default 1), or when no service shows up for 30 s.
#include <kova/kova.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct Player {
  int id = 7;
  int runs = 1;
  int run = 0;
  int awaited = 0;  // start requests still to acknowledge
  GMainLoop *loop = nullptr;
  kova::Subscription resources;  // per application: re-created after a restart

  void Started() {
    if (--awaited == 0) {
      std::printf("player %d is playing (service run %d)\n", id, run);
      if (run == runs) g_main_loop_quit(loop);
    }
  }

  void Appeared() {
    ++run;
    std::printf("the service is there (run %d): registering player %d\n", run, id);
    // The old per-application entry is still registered in the library:
    // undo it before registering again. The restarted service never heard
    // of it, so the library logs that the service refused the unregistration.
    resources.reset();
    auto sub = kova::on_resource_changed("example.player", [](std::string_view app, const kova_resource &r) {
      std::printf("resources of %.*s changed: %dx%d\n", static_cast<int>(app.size()), app.data(), r.width, r.height);
    });
    if (sub) resources = std::move(sub).value();
    awaited = 2;
    if (!kova::register_player(id)) std::printf("registration failed\n");
    const kova::Result<kova::AudioOut> out = kova::request_play(id);
    if (out) {
      std::printf("play granted, audio output %d\n", static_cast<int>(out.value()));
    } else {
      std::printf("play refused (%d)\n", out.error());
    }
  }
};

}  // namespace

int main(int argc, char **argv) {
  Player p;
  if (argc > 1) p.id = std::atoi(argv[1]);
  if (argc > 2) p.runs = std::atoi(argv[2]);
  p.loop = g_main_loop_new(nullptr, FALSE);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  // The request callbacks survive a restart of the service: they match its
  // signals from any sender.
  auto video = kova::on_video_start([&p](int player) {
    if (player != p.id) return;
    std::printf("video start done: %d\n", kova::video_start_done(player));
    p.Started();
  });
  auto audio = kova::on_audio_start([&p](int player) {
    if (player != p.id) return;
    std::printf("audio start done: %d\n", kova::audio_start_done(player));
    p.Started();
  });
  if (!video || !audio) {
    std::printf("cannot subscribe (no bus?)\n");
    return 1;
  }
  kova::Presence presence = kova::watch_service([&p](bool present) {
    if (present) {
      p.Appeared();
    } else {
      std::printf("the service went away: waiting for it to come back\n");
    }
  });
  g_timeout_add_seconds(30, [](gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_REMOVE;
  }, p.loop);
  g_main_loop_run(p.loop);
  const bool done = p.run == p.runs && p.awaited == 0;
  (void)kova::unregister_player(p.id);  // fire-and-forget: nothing to do if it fails at exit
  g_main_loop_unref(p.loop);
  return done ? 0 : 1;
}
