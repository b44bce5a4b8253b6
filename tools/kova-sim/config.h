// kova-sim's configuration: built-in defaults, overridden by a key=value file.
#ifndef KOVA_SIM_CONFIG_H
#define KOVA_SIM_CONFIG_H

#include <map>
#include <string>
#include <string_view>

namespace kova_sim {

struct Resolution {
  int width = 0;
  int height = 0;
  int framerate = 0;
  friend bool operator==(const Resolution &, const Resolution &) = default;
};

struct Config {
  int video_decoders = 2;      // each playing player holds one
  int audio_outputs = 2;       // 1: main only; 2: main and second
  int zones = 2;               // multi-view zones 1..zones, zone z driven by scaler z-1
  int best_quality_zone = 1;   // at start and after RestoreBestQualityZone
  int audio_focus = 1;         // at start; 0 = none
  Resolution main_video{3840, 2160, 60};  // best-quality zone, or no zone at all
  Resolution sub_video{1920, 1080, 30};   // every other zone
  int stop_timeout_ms = 3000;  // how long a player may take to acknowledge a stop
  std::map<int, int> capable_categories;  // GetCapableCatId: requested -> answered
};

// Applies "key = value" lines ('#' starts a comment) on top of *config.
// On the first bad line: false, *config partly updated, *error "line N: ...".
bool ParseConfig(std::string_view text, Config *config, std::string *error);

// Reads and parses a file; errors are "FILE: ..." or "FILE:N: ...".
bool LoadConfig(const std::string &path, Config *config, std::string *error);

}  // namespace kova_sim

#endif
