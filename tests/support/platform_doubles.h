// Test doubles of the platform libraries. Linked into a test executable (which
// exports its symbols), they take the place of the stand-ins for the library:
// every log line is captured, and marker events, audio-out masks, category
// options and predicates are scripted by the test.
#ifndef KOVA_TEST_PLATFORM_DOUBLES_H
#define KOVA_TEST_PLATFORM_DOUBLES_H

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace doubles {

constexpr int kInfo = 4;
constexpr int kError = 6;

struct LogLine {
  int buffer = 0;
  int priority = 0;
  std::string tag;
  std::string text;     // the whole formatted line
  std::string message;  // the part after "> "
};

struct PelkCall {
  std::string path;
  int timeout_ms = 0;
};

enum class Marker { kPresent, kAbsent, kPresentAfter };

// Back to the defaults: no log lines, the service ready, no policy active
// (normal mode), mask 1, no option bits, every predicate false.
void Reset();

std::vector<LogLine> Logs();
std::vector<std::string> Messages();  // message of every line, in order
// Lines whose message equals message, at any priority (priority 0) or the given one.
int CountLog(const std::string &message, int priority = 0);
bool HasLog(const std::string &message, int priority = 0) ;
// Lines whose message starts with prefix.
int CountLogPrefix(const std::string &prefix, int priority = 0);

// Marker events. after_ms applies to kPresentAfter: a wait of at least that
// long sees the event, a shorter one does not.
void SetMarker(const std::string &path, Marker state, int after_ms = 0);
std::vector<PelkCall> PelkCalls();

// Ordered record of CPU-inheritance calls ("set 0 kova 2000", "clear 0 kova")
// and of whatever else a test notes (the fake service notes "call <Method>").
void Note(const std::string &event);
std::vector<std::string> Timeline();

// libbrask.
void SetActiveAudioOutMask(int mask);
std::vector<int> AudioOutQueries();  // player ids asked about
void SetOptionMask(int mask);        // bits that unmasking removes

// libostel.
enum class Predicate {
  kVideoDecoder,
  kAudioDecoder,
  kAudioOut,
  kVideoScaler,
  kMjpegDecoder,
  kHdmiDedicatedScaler,
};
void SetCategories(Predicate predicate, std::set<int> categories);
void SetSupportHdmiDedicatedScaler(bool value);
void SetH264InterlacedLimited(bool value);
void SetH264PortraitSeamlessLimited(bool value);

// The monotonic clock the library reads (clock_gettime is interposed for its
// calls only): that many seconds and 999999999 ns; -1 for the real clock.
void SetMonotonicSeconds(long seconds);

}  // namespace doubles

#endif
