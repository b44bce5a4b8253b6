// Writes the seed corpus of the fuzz targets: well-formed inputs that reach
// the deep paths, and a few malformed ones.
// Usage: fuzz_make_corpus <corpus dir>
#include <gio/gio.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

std::string root;

// prefix, then the value (GVariant text format) as its type string, a NUL,
// [a u16 length,] and its serialised bytes, then suffix.
Bytes input(Bytes prefix, const char *value, bool with_length = false, const Bytes &suffix = {}) {
  GVariant *v = g_variant_ref_sink(g_variant_new_parsed(value));
  const char *type = g_variant_get_type_string(v);
  prefix.insert(prefix.end(), type, type + std::strlen(type) + 1);
  const size_t n = g_variant_get_size(v);
  if (with_length) {
    prefix.push_back(static_cast<uint8_t>(n & 0xFF));
    prefix.push_back(static_cast<uint8_t>(n >> 8));
  }
  const auto *data = static_cast<const uint8_t *>(g_variant_get_data(v));
  prefix.insert(prefix.end(), data, data + n);
  prefix.insert(prefix.end(), suffix.begin(), suffix.end());
  g_variant_unref(v);
  return prefix;
}

void save(const std::string &target, const std::string &name, const Bytes &bytes) {
  const std::string dir = root + "/" + target;
  if (g_mkdir_with_parents(dir.c_str(), 0755) != 0 ||
      !g_file_set_contents((dir + "/" + name).c_str(), reinterpret_cast<const char *>(bytes.data()),
                           static_cast<gssize>(bytes.size()), nullptr)) {
    std::fprintf(stderr, "cannot write %s/%s\n", dir.c_str(), name.c_str());
    std::exit(1);
  }
}

constexpr const char *kZones = "([(1, 0, 'app.a'), (2, 1, ''), (3, 2, 'org.example.player')],)";
constexpr const char *kMultiviewZones = "([(4, 'app.b'), (5, 'app.c')],)";

void signals() {
  // Selector (bit 6: re-entrant callback), name, parameters.
  struct Seed { uint8_t selector; const char *name, *params; };
  const Seed seeds[] = {
      {0, "video_start", "(16, 7)"},
      {1, "video_stop", "(17, 7)"},
      {2, "audio_start", "(18, 7)"},
      {3, "audio_stop", "(19, 7)"},
      {4, "audio_resync", "(20, 7)"},
      {5, "audio_focus", "(1, 2, 3, 'app.a')"},
      {6, "focus_zone", "(1, 2, 3, 'app.a')"},
      {7, "policy", "(16, 4, [(1, 'app.a'), (2, 'org.example.player')])"},
      {8, "best_zone", "(1, 2, 3)"},
      {0x48, "best_zone_reenter", "(2, 1, 0)"},
      {0x48, "best_zone_reenter_back", "(1, 2, 0)"},
      {9, "rsc_changed", "('app.a', 1, 0, 1920, 1080, 60)"},
      {9, "rsc_changed_other_app", "('nobody', 1, 1, 1, 1, 1)"},
      {10, "max_rez", "('org.example.player', 3840, 2160, 60)"},
  };
  for (const auto &s : seeds) {
    const std::string name = s.name;
    save("signals", name, input({s.selector}, s.params));
    save("signals", name + "_wrong_type", input({s.selector}, "('x',)"));
    Bytes cut = input({s.selector}, s.params);
    cut.resize(cut.size() - 3);
    save("signals", name + "_truncated", cut);
  }
  save("signals", "invalid_type_string", {7, '(', 'a', 0, 1, 2});
}

// The well-formed reply of each entry of fuzz_replies.cc's table.
const char *good_reply(int which) {
  if (which == 5) return kZones;
  if (which == 6) return kMultiviewZones;
  if (which == 9 || which == 10) return "(1, 2, 'app.f')";
  if (which == 18) return "(1920, 1080, 60)";
  return which == 0 ? "(1,)" : "(0,)";
}

void replies() {
  // Selector, flags, reply (see fuzz_replies.cc).
  for (uint8_t which = 0; which < 23; ++which) {
    const std::string n = std::to_string(which);
    save("replies", n + "_ok", input({which, 0}, good_reply(which)));
    save("replies", n + "_wrong_type", input({which, 0}, "('a', 'b')"));
    save("replies", n + "_failed", {which, 0});
  }
  save("replies", "0_not_ready", input({0, 1}, "(2,)"));
  save("replies", "2_policy_active", input({2, 2}, "(-1,)"));
  save("replies", "19_startup", input({19, 4}, "(2001,)"));
  save("replies", "21_applist", input({21 | 0x80, 0}, "(0,)"));
  save("replies", "5_empty_list", input({5, 0}, "(@a(iis) [],)"));
}

void lists() {
  // Flags, zone reply, then operations (see step() in fuzz_lists.cc).
  const Bytes zone_ops = {0, 0, 1, 2, 0, 1, 1, 2, 0};
  const Bytes app_ops = {
      3, 4, 0, 3, 'a', '.', 'b', 5,         // new list, add "a.b" in zone 5
      4, 0, 2, 'x', 'y', 0xFF,              // add "xy" in zone -1
      6, 0, 5, 0, 0x45, 0, 0x85, 0,         // walk, first, next, previous
      3, 8, 1, 'o', 0,                      // a second list; a policy info takes the first
      9, 0, 0, 0, 0x89, 0, 0, 0, 10, 0, 7, 0,  // sends, frees
  };
  Bytes both = zone_ops;
  both.insert(both.end(), app_ops.begin(), app_ops.end());
  save("lists", "zones_walk", input({0}, kZones, true, zone_ops));
  save("lists", "multiview_walk", input({1}, kMultiviewZones, true, zone_ops));
  save("lists", "apps", input({0}, "('no zones',)", true, app_ops));
  save("lists", "zones_and_apps", input({0}, kZones, true, both));
  save("lists", "invalid_utf8_app", {0, 'i', 0, 0, 0, 3, 4, 0, 2, 0xC3, 0x28, 7, 6, 0});
  save("lists", "truncated", {1, '(', 'a', '(', 'i', 's', ')', ')', 0, 40, 0, 6, 0, 0, 0});
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
    return 2;
  }
  root = argv[1];
  signals();
  replies();
  lists();
  return 0;
}
