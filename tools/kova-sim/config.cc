#include "config.h"

#include <charconv>
#include <fstream>
#include <functional>
#include <sstream>

namespace kova_sim {
namespace {

std::string_view Trim(std::string_view s) {
  const char *blank = " \t\r";
  size_t b = s.find_first_not_of(blank);
  if (b == std::string_view::npos) return {};
  return s.substr(b, s.find_last_not_of(blank) - b + 1);
}

bool ParseInt(std::string_view s, int *out) {
  s = Trim(s);
  if (s.empty()) return false;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), *out);
  return ec == std::errc() && end == s.data() + s.size();
}

bool ParseIntIn(std::string_view s, int lo, int hi, int *out, std::string *error) {
  int v;
  if (!ParseInt(s, &v)) {
    *error = "'" + std::string(Trim(s)) + "' is not an integer";
    return false;
  }
  if (v < lo || v > hi) {
    *error = std::to_string(v) + " is out of range " + std::to_string(lo) + ".." + std::to_string(hi);
    return false;
  }
  *out = v;
  return true;
}

// "WIDTHxHEIGHT@FRAMERATE", all positive.
bool ParseResolution(std::string_view s, Resolution *out, std::string *error) {
  s = Trim(s);
  size_t x = s.find('x');
  size_t at = s.find('@');
  Resolution r;
  if (x == std::string_view::npos || at == std::string_view::npos || at < x ||
      !ParseInt(s.substr(0, x), &r.width) || !ParseInt(s.substr(x + 1, at - x - 1), &r.height) ||
      !ParseInt(s.substr(at + 1), &r.framerate) || r.width <= 0 || r.height <= 0 || r.framerate <= 0) {
    *error = "'" + std::string(s) + "' is not WIDTHxHEIGHT@FRAMERATE";
    return false;
  }
  *out = r;
  return true;
}

// "FROM:TO, FROM:TO, ..."; empty clears the map.
bool ParseCategoryMap(std::string_view s, std::map<int, int> *out, std::string *error) {
  std::map<int, int> map;
  s = Trim(s);
  while (!s.empty()) {
    size_t comma = s.find(',');
    std::string_view pair = Trim(s.substr(0, comma));
    size_t colon = pair.find(':');
    int from, to;
    if (colon == std::string_view::npos || !ParseInt(pair.substr(0, colon), &from) ||
        !ParseInt(pair.substr(colon + 1), &to)) {
      *error = "'" + std::string(pair) + "' is not FROM:TO";
      return false;
    }
    map[from] = to;
    s = comma == std::string_view::npos ? std::string_view() : s.substr(comma + 1);
  }
  *out = std::move(map);
  return true;
}

using Setter = std::function<bool(std::string_view, Config *, std::string *)>;

const std::map<std::string, Setter, std::less<>> &Setters() {
  static const std::map<std::string, Setter, std::less<>> setters = {
      {"video_decoders", [](auto v, Config *c, auto *e) { return ParseIntIn(v, 1, 8, &c->video_decoders, e); }},
      {"audio_outputs", [](auto v, Config *c, auto *e) { return ParseIntIn(v, 1, 2, &c->audio_outputs, e); }},
      {"zones", [](auto v, Config *c, auto *e) { return ParseIntIn(v, 1, 4, &c->zones, e); }},
      {"best_quality_zone", [](auto v, Config *c, auto *e) { return ParseIntIn(v, 1, 4, &c->best_quality_zone, e); }},
      {"audio_focus", [](auto v, Config *c, auto *e) { return ParseIntIn(v, 0, 4, &c->audio_focus, e); }},
      {"main_video", [](auto v, Config *c, auto *e) { return ParseResolution(v, &c->main_video, e); }},
      {"sub_video", [](auto v, Config *c, auto *e) { return ParseResolution(v, &c->sub_video, e); }},
      {"stop_timeout_ms",
       [](auto v, Config *c, auto *e) { return ParseIntIn(v, 1, 60000, &c->stop_timeout_ms, e); }},
      {"capable_categories",
       [](auto v, Config *c, auto *e) { return ParseCategoryMap(v, &c->capable_categories, e); }},
  };
  return setters;
}

}  // namespace

bool ParseConfig(std::string_view text, Config *config, std::string *error) {
  int line_no = 0;
  while (!text.empty()) {
    ++line_no;
    size_t nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
    line = Trim(line.substr(0, line.find('#')));
    if (line.empty()) continue;
    auto fail = [&](const std::string &what) {
      *error = "line " + std::to_string(line_no) + ": " + what;
      return false;
    };
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) return fail("expected key = value");
    std::string_view key = Trim(line.substr(0, eq));
    auto it = Setters().find(key);
    if (it == Setters().end()) return fail("unknown key '" + std::string(key) + "'");
    std::string why;
    if (!it->second(line.substr(eq + 1), config, &why)) return fail(std::string(key) + ": " + why);
  }
  // Zone numbers must fit the zone count, whichever line came first.
  if (config->best_quality_zone > config->zones) {
    *error = "best_quality_zone " + std::to_string(config->best_quality_zone) + " is not one of the " +
             std::to_string(config->zones) + " zones";
    return false;
  }
  if (config->audio_focus > config->zones) {
    *error = "audio_focus " + std::to_string(config->audio_focus) + " is not one of the " +
             std::to_string(config->zones) + " zones";
    return false;
  }
  return true;
}

bool LoadConfig(const std::string &path, Config *config, std::string *error) {
  std::ifstream in(path);
  if (!in) {
    *error = path + ": cannot read the file";
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  std::string why;
  if (!ParseConfig(text.str(), config, &why)) {
    // "line N: ..." becomes "FILE:N: ..."
    *error = why.rfind("line ", 0) == 0 ? path + ":" + why.substr(5) : path + ": " + why;
    return false;
  }
  return true;
}

}  // namespace kova_sim
