// Test doubles of the platform libraries. Linked into a test executable (which
// exports its symbols), they take the place of the stand-ins for the library:
// every log line is captured, and the markers, the resource manager's answers,
// the category predicates and the monotonic clock are scripted by the test.
#ifndef KOVA_TEST_PLATFORM_DOUBLES_H
#define KOVA_TEST_PLATFORM_DOUBLES_H

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

// Back to the defaults: no log lines, the service ready, no policy active
// (normal mode), mask 1, no option bits, every predicate false, the real clock.
void Reset();

std::vector<LogLine> Logs();
std::vector<std::string> Messages();  // message of every line, in order
// Lines whose message equals message (or starts with prefix), at any priority (0) or the given one.
int CountLog(const std::string &message, int priority = 0);
bool HasLog(const std::string &message, int priority = 0);
int CountLogPrefix(const std::string &prefix, int priority = 0);

// Markers, and the waits asked for ({path, timeout ms}).
void SetMarker(const std::string &path, bool present);
std::vector<std::pair<std::string, int>> PelkCalls();

// Ordered record of CPU-inheritance calls ("set 0 kova 2000", "clear 0 kova")
// and of whatever else a test notes (the fake service notes "call <Method>").
void Note(const std::string &event);
std::vector<std::string> Timeline();

// The resource manager: the audio-out mask it answers, the players asked
// about, and the option bits that unmasking removes.
void SetActiveAudioOutMask(int mask);
std::vector<int> AudioOutQueries();
void SetOptionMask(int mask);

// The resource information library.
enum class Predicate { kVideoDecoder, kAudioDecoder, kAudioOut, kVideoScaler, kMjpegDecoder, kHdmiDedicatedScaler };
void SetCategories(Predicate predicate, std::set<int> categories);
void SetModel(bool hdmi_dedicated_scaler, bool h264_interlaced_limited, bool h264_portrait_limited);

// The monotonic clock the library reads (clock_gettime is interposed for its
// calls only): that many seconds and 999999999 ns; -1 for the real clock.
void SetMonotonicSeconds(long seconds);

}  // namespace doubles

#endif
