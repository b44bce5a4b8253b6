// kovactl's pieces: output records, the library's log lines, argument values
// and the command families.
#ifndef KOVACTL_H
#define KOVACTL_H

#include <gio/gio.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kovactl {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

inline constexpr const char *kService = "org.zelta.tv.system.resource";
inline constexpr const char *kPath = "/Org/Zelta/TV/System/Resource";
inline constexpr const char *kReadyMarker = "/tmp/.kova_ready";
inline constexpr const char *kPolicyMarker = "/tmp/.rsc_policy_activated";

struct Options {
  bool json = false;     // JSON Lines instead of text
  bool verbose = false;  // the library's log lines on stderr
};
extern Options g_options;

// A bad command line: the message, and the command whose help explains it.
struct UsageError {
  std::string message;
};

// ---- output ----

std::string JsonString(const std::string &s);

// One line of output: "kind key=value ..." as text, or a JSON object whose
// "kind" says what the line is.
class Record {
 public:
  explicit Record(const std::string &kind);
  Record &Int(const char *key, long long v);
  Record &Str(const char *key, const std::string &v);
  // A value written as it is: json in JSON, text in text.
  Record &Raw(const char *key, const std::string &json, const std::string &text);
  // A string that text shows without its key.
  Record &Word(const char *key, const std::string &v);
  void Print() const;
  const std::string &kind() const { return kind_; }

 private:
  struct Field {
    std::string key, json, text;
    bool bare;
  };
  std::string kind_;
  std::vector<Field> fields_;
};

// A GVariant as JSON, and as text (key: value lines indented by depth).
std::string VariantJson(GVariant *v);
void VariantText(GVariant *v, int depth, std::string *out);

// ---- the library's log lines ----

// kovactl takes the library's platform log lines itself: it keeps them to
// explain a failure and to tell where an answer came from, and writes them
// to stderr only with -v.
namespace library_log {
void Begin();                             // forget the lines seen so far
bool Saw(const std::string &prefix);      // a line since Begin starts so
std::vector<std::string> Errors();        // error lines since Begin
std::string Last();                       // the last line since Begin
}  // namespace library_log

// Where an answer came from, from the lines the call wrote: "service",
// "library" (the service was not asked) or "platform" (the resource manager).
std::string Source();

// Warns once, on stderr, when the service's ready marker is absent.
void WarnIfNotReady();

// Finishes a command's record: the result, the source when asked for, and on
// failure an "error" field and the reason on stderr. Returns the exit status.
int Finish(Record &rec, int result, bool failed, bool with_source = false);

// The system bus (the library's connection too); null after saying why.
GDBusConnection *SystemBus(const char *who);

// ---- argument values ----

struct Name {
  const char *name;
  int value;
};
// An integer, or one of names; what says what the value is.
int ParseValue(const std::string &text, const char *what, const std::vector<Name> &names = {});
std::string NamesOf(const std::vector<Name> &names);

extern const std::vector<Name> kLayoutStates;
extern const std::vector<Name> kPolicies;
extern const std::vector<Name> kCodecs;
extern const std::vector<Name> kAudioOuts;
extern const std::vector<Name> kRequests;

using Args = std::vector<std::string>;

// ---- commands ----

struct Command {
  const char *family;
  const char *name;     // null: the family itself is the command
  const char *usage;    // the arguments
  const char *summary;  // one line
  std::string details;  // each argument's meaning and values, lines of "  ARG  text"
  size_t min_args;
  size_t max_args;
  int (*run)(const Args &);
};
const std::vector<Command> &Commands();

int Monitor(const Args &args);
int Status(const Args &args);

}  // namespace kovactl

#endif
