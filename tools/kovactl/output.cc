// Output records, the library's log lines as kovactl takes them, and the
// values a user may give by name.
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "kovactl.h"
#include "pelk.h"

namespace kovactl {

Options g_options;

std::string JsonString(const std::string &text) {
  // JSON is UTF-8: bytes that are not valid UTF-8 become U+FFFD.
  gchar *valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  const std::string s = valid;
  g_free(valid);
  std::string out = "\"";
  for (const char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

Record::Record(const std::string &kind) : kind_(kind) {}

Record &Record::Int(const char *key, long long v) { return Raw(key, std::to_string(v), std::to_string(v)); }
Record &Record::Str(const char *key, const std::string &v) {
  // Text keeps a value one word: empty is "-", one with blanks is quoted.
  const bool quote = v.find_first_of(" \t\"") != std::string::npos;
  return Raw(key, JsonString(v), v.empty() ? "-" : quote ? JsonString(v) : v);
}
Record &Record::Raw(const char *key, const std::string &json, const std::string &text) {
  fields_.push_back({key, json, text, false});
  return *this;
}
Record &Record::Word(const char *key, const std::string &v) {
  fields_.push_back({key, JsonString(v), v.empty() ? "-" : v, true});
  return *this;
}

void Record::Print() const {
  std::string line;
  if (g_options.json) {
    line = "{\"kind\":" + JsonString(kind_);
    for (const Field &f : fields_) line += "," + JsonString(f.key) + ":" + f.json;
    line += "}";
  } else {
    line = kind_;
    for (const Field &f : fields_) line += (line.empty() ? "" : " ") + (f.bare ? f.text : f.key + "=" + f.text);
  }
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

std::string VariantJson(GVariant *v) {
  if (g_variant_is_of_type(v, G_VARIANT_TYPE_VARIANT)) {
    GVariant *inner = g_variant_get_variant(v);
    std::string out = VariantJson(inner);
    g_variant_unref(inner);
    return out;
  }
  if (g_variant_is_of_type(v, G_VARIANT_TYPE_STRING)) return JsonString(g_variant_get_string(v, nullptr));
  if (g_variant_is_of_type(v, G_VARIANT_TYPE_BOOLEAN)) return g_variant_get_boolean(v) ? "true" : "false";
  if (g_variant_is_container(v)) {
    const bool object = g_variant_type_is_dict_entry(g_variant_type_element(g_variant_get_type(v))) &&
                        g_variant_type_is_array(g_variant_get_type(v));
    std::string out = object ? "{" : "[";
    GVariantIter iter;
    g_variant_iter_init(&iter, v);
    for (GVariant *child; (child = g_variant_iter_next_value(&iter)) != nullptr; g_variant_unref(child)) {
      if (out.size() > 1) out += ",";
      if (object) {
        GVariant *key = g_variant_get_child_value(child, 0), *value = g_variant_get_child_value(child, 1);
        gchar *k = g_variant_is_of_type(key, G_VARIANT_TYPE_STRING) ? g_variant_dup_string(key, nullptr)
                                                                    : g_variant_print(key, FALSE);
        out += JsonString(k) + ":" + VariantJson(value);
        g_free(k);
        g_variant_unref(key);
        g_variant_unref(value);
      } else {
        out += VariantJson(child);
      }
    }
    return out + (object ? "}" : "]");
  }
  gchar *text = g_variant_print(v, FALSE);  // numbers
  std::string out = text;
  g_free(text);
  return out;
}

void VariantText(GVariant *v, int depth, std::string *out) {
  const std::string indent(static_cast<size_t>(depth) * 2, ' ');
  if (g_variant_is_of_type(v, G_VARIANT_TYPE_VARIANT)) {
    GVariant *inner = g_variant_get_variant(v);
    VariantText(inner, depth, out);
    g_variant_unref(inner);
    return;
  }
  const GVariantType *type = g_variant_get_type(v);
  const bool dict = g_variant_type_is_array(type) && g_variant_type_is_dict_entry(g_variant_type_element(type));
  const bool nested = g_variant_type_is_array(type) && g_variant_type_is_array(g_variant_type_element(type));
  if (dict || nested) {
    if (g_variant_n_children(v) == 0) {
      *out += indent + "-\n";
      return;
    }
    GVariantIter iter;
    g_variant_iter_init(&iter, v);
    for (GVariant *child; (child = g_variant_iter_next_value(&iter)) != nullptr; g_variant_unref(child)) {
      if (!dict) {  // a list of dictionaries: one paragraph each
        *out += indent + "-\n";
        VariantText(child, depth + 1, out);
        continue;
      }
      GVariant *key = g_variant_get_child_value(child, 0), *value = g_variant_get_child_value(child, 1);
      GVariant *plain = g_variant_is_of_type(value, G_VARIANT_TYPE_VARIANT) ? g_variant_get_variant(value)
                                                                             : g_variant_ref(value);
      const std::string name = g_variant_is_of_type(key, G_VARIANT_TYPE_STRING)
                                   ? g_variant_get_string(key, nullptr)
                                   : std::to_string(g_variant_get_int32(key));
      const GVariantType *t = g_variant_get_type(plain);
      // An empty list or dictionary stays on its key's line, as "key: -".
      const bool block = g_variant_type_is_array(t) && !g_variant_type_equal(t, G_VARIANT_TYPE_STRING_ARRAY) &&
                         g_variant_n_children(plain) > 0;
      if (block) {
        *out += indent + name + ":\n";
        VariantText(plain, depth + 1, out);
      } else {
        std::string line;
        VariantText(plain, 0, &line);
        *out += indent + name + ": " + line;
      }
      g_variant_unref(plain);
      g_variant_unref(key);
      g_variant_unref(value);
    }
    return;
  }
  if (g_variant_is_of_type(v, G_VARIANT_TYPE_STRING)) {
    const char *s = g_variant_get_string(v, nullptr);
    *out += indent + (s[0] != '\0' ? s : "-") + "\n";
    return;
  }
  if (g_variant_is_of_type(v, G_VARIANT_TYPE_STRING_ARRAY)) {
    std::string items;
    GVariantIter iter;
    g_variant_iter_init(&iter, v);
    for (const gchar *s; g_variant_iter_next(&iter, "&s", &s);) items += (items.empty() ? "" : ", ") + std::string(s);
    *out += indent + (items.empty() ? "-" : items) + "\n";
    return;
  }
  gchar *text = g_variant_print(v, FALSE);
  *out += indent + (g_variant_is_of_type(v, G_VARIANT_TYPE_BOOLEAN) ? (g_variant_get_boolean(v) ? "yes" : "no")
                                                                     : text) +
          "\n";
  g_free(text);
}

// ---- the library's log lines ----

namespace {

struct Line {
  int priority;
  std::string message;  // after "file: function(line) > "
};

std::mutex g_log_mutex;
std::vector<Line> g_lines;

}  // namespace

namespace library_log {

void Begin() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  g_lines.clear();
}

bool Saw(const std::string &prefix) {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  for (const Line &l : g_lines) {
    if (l.message.compare(0, prefix.size(), prefix) == 0) return true;
  }
  return false;
}

std::vector<std::string> Errors() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  std::vector<std::string> out;
  for (const Line &l : g_lines) {
    if (l.priority >= 6) out.push_back(l.message);
  }
  return out;
}

std::string Last() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  return g_lines.empty() ? "" : g_lines.back().message;
}

}  // namespace library_log

std::string Source() {
  if (library_log::Saw("Method call '")) return "service";
  if (library_log::Saw("player : ")) return "platform";
  return "library";
}

void WarnIfNotReady() {
  static bool warned = false;
  if (warned || PelkWaitEvent(kReadyMarker, 0) == 0) return;
  warned = true;
  const char *root = std::getenv("PELK_ROOT");
  std::fprintf(stderr,
               "kovactl: warning: the service's ready marker %s%s is absent (is PELK_ROOT the service's marker "
               "root?): some answers come from the library, not from the service\n",
               root != nullptr ? root : "", kReadyMarker);
}

int Finish(Record &rec, int result, bool failed, bool with_source) {
  if (with_source) rec.Str("source", Source());
  if (!failed) {
    rec.Print();
    return kOk;
  }
  std::vector<std::string> reasons;
  for (const std::string &line : library_log::Errors()) {
    // Every list the library sends is walked to its end, which it logs as an
    // error even when all is well: not a reason.
    if (line != "no next app" && line != "invalid list") reasons.push_back(line);
  }
  if (reasons.empty()) reasons.push_back("the library answered " + std::to_string(result) + " (" +
                                         library_log::Last() + ")");
  std::string joined;
  for (const std::string &r : reasons) joined += (joined.empty() ? "" : "; ") + r;
  rec.Str("error", joined);
  rec.Print();
  for (const std::string &r : reasons) std::fprintf(stderr, "kovactl: %s: %s\n", rec.kind().c_str(), r.c_str());
  return kFailed;
}

GDBusConnection *SystemBus(const char *who) {
  GError *error = nullptr;
  GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (bus == nullptr) {
    std::fprintf(stderr, "kovactl: %s: no system bus: %s\n", who, error->message);
    g_error_free(error);
  }
  return bus;
}

// ---- values ----

const std::vector<Name> kLayoutStates = {{"none", 0}, {"single", 1}, {"multiview", 2}, {"changing", 3}};
const std::vector<Name> kPolicies = {{"default", 0}, {"multiview", 1}, {"game", 2}};
const std::vector<Name> kCodecs = {{"h264", 0}, {"hevc", 1}, {"vp9", 2}, {"av1", 3}};
const std::vector<Name> kAudioOuts = {{"none", 0}, {"main", 1}, {"sub", 2}};
const std::vector<Name> kRequests = {{"video-start", 0}, {"video-stop", 1}, {"audio-start", 2}, {"audio-stop", 3}};

std::string NamesOf(const std::vector<Name> &names) {
  std::string out;
  for (const Name &n : names) out += (out.empty() ? "" : ", ") + std::string(n.name) + " (" + std::to_string(n.value) + ")";
  return out;
}

int ParseValue(const std::string &text, const char *what, const std::vector<Name> &names) {
  for (const Name &n : names) {
    if (text == n.name) return n.value;
  }
  char *end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 0);
  if (text.empty() || errno != 0 || *end != '\0' || v < INT_MIN || v > INT_MAX) {
    throw UsageError{std::string(what) + " must be an integer" + (names.empty() ? "" : " or one of " + NamesOf(names)) +
                     ", not '" + text + "'"};
  }
  return static_cast<int>(v);
}

}  // namespace kovactl

// The library's platform log, taken by kovactl (its definition comes before
// the platform's for the library in this process).
extern "C" __attribute__((visibility("default"))) int __marlo_print(int buffer_id, int priority, const char *tag,
                                                                   const char *fmt, ...) {
  if (fmt == nullptr) return -1;
  va_list ap;
  va_start(ap, fmt);
  gchar *text = g_strdup_vprintf(fmt, ap);
  va_end(ap);
  const std::string line = text;
  g_free(text);
  const size_t at = line.find(" > ");
  {
    std::lock_guard<std::mutex> lock(kovactl::g_log_mutex);
    kovactl::g_lines.push_back({priority, at == std::string::npos ? line : line.substr(at + 3)});
  }
  if (kovactl::g_options.verbose) {
    static const char kLetters[] = "??VDIWEF";
    std::fprintf(stderr, "%c/%s(%d): %s\n", priority >= 0 && priority <= 7 ? kLetters[priority] : '?',
                 tag != nullptr ? tag : "", buffer_id, line.c_str());
  }
  return static_cast<int>(line.size());
}
