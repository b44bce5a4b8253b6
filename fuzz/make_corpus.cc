// Writes the seed corpus of the fuzz targets: for each, well-formed inputs
// that reach the deep paths and a few malformed ones.
// Usage: fuzz_make_corpus <corpus dir>
#include <gio/gio.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

std::string root;
int written = 0;

// A type string, its NUL, [u16 length,] and the value's serialised bytes.
Bytes value(GVariant *v, bool with_length) {
  g_variant_ref_sink(v);
  const char *type = g_variant_get_type_string(v);
  Bytes out(type, type + std::char_traits<char>::length(type));
  out.push_back(0);
  const size_t n = g_variant_get_size(v);
  if (with_length) {
    out.push_back(static_cast<uint8_t>(n & 0xFF));
    out.push_back(static_cast<uint8_t>(n >> 8));
  }
  const auto *data = static_cast<const uint8_t *>(g_variant_get_data(v));
  out.insert(out.end(), data, data + n);
  g_variant_unref(v);
  return out;
}

void write(const std::string &target, const std::string &name, const Bytes &prefix, const Bytes &rest) {
  std::string dir = root + "/" + target;
  g_mkdir_with_parents(dir.c_str(), 0755);
  Bytes all(prefix);
  all.insert(all.end(), rest.begin(), rest.end());
  std::string path = dir + "/" + name;
  GError *error = nullptr;
  if (!g_file_set_contents(path.c_str(), reinterpret_cast<const char *>(all.data()),
                           static_cast<gssize>(all.size()), &error)) {
    std::fprintf(stderr, "%s\n", error->message);
    g_error_free(error);
    return;
  }
  ++written;
}

GVariant *app_zones() {
  GVariantBuilder b;
  g_variant_builder_init(&b, G_VARIANT_TYPE("a(is)"));
  g_variant_builder_add(&b, "(is)", 1, "app.a");
  g_variant_builder_add(&b, "(is)", 2, "org.example.player");
  return g_variant_new("(iia(is))", 0x10, 4, &b);
}

GVariant *zones_with_scaler() {
  GVariantBuilder b;
  g_variant_builder_init(&b, G_VARIANT_TYPE("a(iis)"));
  g_variant_builder_add(&b, "(iis)", 1, 0, "app.a");
  g_variant_builder_add(&b, "(iis)", 2, 1, "");
  g_variant_builder_add(&b, "(iis)", 3, 2, "org.example.player");
  return g_variant_new("(a(iis))", &b);
}

GVariant *multiview_zones() {
  GVariantBuilder b;
  g_variant_builder_init(&b, G_VARIANT_TYPE("a(is)"));
  g_variant_builder_add(&b, "(is)", 4, "app.b");
  g_variant_builder_add(&b, "(is)", 5, "app.c");
  return g_variant_new("(a(is))", &b);
}

void signals() {
  struct Seed {
    uint8_t selector;
    const char *name;
    GVariant *(*params)();
  };
  const Seed seeds[] = {
      {0, "video_start", [] { return g_variant_new("(ii)", 0x10, 7); }},
      {1, "video_stop", [] { return g_variant_new("(ii)", 0x11, 7); }},
      {2, "audio_start", [] { return g_variant_new("(ii)", 0x12, 7); }},
      {3, "audio_stop", [] { return g_variant_new("(ii)", 0x13, 7); }},
      {4, "audio_resync", [] { return g_variant_new("(ii)", 0x14, 7); }},
      {5, "audio_focus", [] { return g_variant_new("(iiis)", 1, 2, 3, "app.a"); }},
      {6, "focus_zone", [] { return g_variant_new("(iiis)", 1, 2, 3, "app.a"); }},
      {7, "policy", app_zones},
      {8, "best_zone", [] { return g_variant_new("(iii)", 1, 2, 3); }},
      {0x48, "best_zone_reenter", [] { return g_variant_new("(iii)", 2, 1, 0); }},
      {9, "rsc_changed", [] { return g_variant_new("(siiiii)", "app.a", 1, 0, 1920, 1080, 60); }},
      {0x49, "rsc_changed_reenter", [] { return g_variant_new("(siiiii)", "", 0, 1, 1280, 720, 30); }},
      {10, "max_rez", [] { return g_variant_new("(siii)", "org.example.player", 3840, 2160, 60); }},
      {0x4A, "max_rez_reenter", [] { return g_variant_new("(siii)", "app.a", 1, 2, 3); }},
      {9, "rsc_changed_other_app", [] { return g_variant_new("(siiiii)", "nobody", 1, 1, 1, 1, 1); }},
  };
  for (const Seed &s : seeds) {
    write("signals", s.name, {s.selector}, value(s.params(), false));
    // The same signal with the wrong type, and cut short.
    write("signals", std::string(s.name) + "_wrong_type", {s.selector},
          value(g_variant_new("(s)", "x"), false));
    Bytes cut = value(s.params(), false);
    cut.resize(cut.size() - 3);
    write("signals", std::string(s.name) + "_truncated", {static_cast<uint8_t>(s.selector | 0x80)}, cut);
  }
  write("signals", "invalid_type_string", {7}, {'(', 'a', 0, 1, 2});
}

void replies() {
  for (uint8_t which = 0; which < 40; ++which) {
    GVariant *good = nullptr;
    switch (which) {
      case 9: case 11: good = zones_with_scaler(); break;
      case 10: good = multiview_zones(); break;
      case 16: case 17: good = g_variant_new("(iis)", 1, 2, "app.f"); break;
      case 28: case 29: case 30: good = g_variant_new("(iii)", 1920, 1080, 60); break;
      default: good = g_variant_new("(i)", which == 0 ? 1 : 0); break;
    }
    const std::string n = std::to_string(which);
    write("replies", n + "_ok", {which, 0}, value(good, false));
    write("replies", n + "_wrong_type", {which, 8}, value(g_variant_new("(ss)", "a", "b"), false));
    write("replies", n + "_failed", {which, 16}, {});
  }
  // Mode switches: not ready, policy active, just started.
  write("replies", "0_not_ready", {0, 1}, value(g_variant_new("(i)", 2), false));
  write("replies", "5_policy_active", {5, 2}, value(g_variant_new("(i)", -1), false));
  write("replies", "31_startup", {31, 4}, value(g_variant_new("(i)", 2001), false));
  write("replies", "34_applist", {34 | 0x80, 0}, value(g_variant_new("(i)", 0), false));
  write("replies", "9_empty_list", {9, 0}, value(g_variant_new_parsed("(@a(iis) [],)"), false));
}

void lists() {
  // Operations: 0x00 new list, 0x01 add (list, id, zone), 0x02 new app, 0x03
  // insert, 0x04-0x06 first/next/prev, 0x07 walk and count, 0x08 free list,
  // 0x0A new policy info, 0x0B attach, 0x0C sends, 0x0D free info; with 0x40
  // set and a zone list present: zone walks.
  const Bytes app_ops = {0x00, 0x01, 0x00, 3, 'a', '.', 'b', 5, 0, 0, 0, 0x02, 2, 'x', 'y', 0x03, 0, 0,
                         0x07, 0,    0x05, 0,  0x06, 0,   0x04, 0, 0, 0, 0, 0x0A, 1, 'o',  0x0B, 0, 0,
                         0x0C, 0,    0,    0,  0x0D, 0,   0x08, 0};
  const Bytes zone_ops = {0x40, 0x40, 0x41, 0x42, 0x43, 0x41, 0x41, 0x42, 0x40};
  write("lists", "zones_walk", {0}, [&] {
    Bytes b = value(zones_with_scaler(), true);
    b.insert(b.end(), zone_ops.begin(), zone_ops.end());
    return b;
  }());
  write("lists", "multiview_walk", {1}, [&] {
    Bytes b = value(multiview_zones(), true);
    b.insert(b.end(), zone_ops.begin(), zone_ops.end());
    return b;
  }());
  write("lists", "apps", {0}, [&] {
    Bytes b = value(g_variant_new("(s)", "no zones"), true);
    b.insert(b.end(), app_ops.begin(), app_ops.end());
    return b;
  }());
  write("lists", "zones_and_apps", {2}, [&] {
    Bytes b = value(zones_with_scaler(), true);
    b.insert(b.end(), zone_ops.begin(), zone_ops.end());
    b.insert(b.end(), app_ops.begin(), app_ops.end());
    return b;
  }());
  write("lists", "invalid_utf8_app", {0}, {'i', 0, 0, 0, 0x00, 0x01, 0, 2, 0xC3, 0x28, 0x07, 0});
  write("lists", "truncated", {1}, {'(', 'a', '(', 'i', 's', ')', ')', 0, 40, 0, 8, 0, 0, 0});
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
  std::printf("%d inputs written\n", written);
  return 0;
}
