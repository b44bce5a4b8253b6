#include "marlo.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace {
char priority_letter(int priority) {
  switch (priority) {
    case 2: return 'V';
    case 3: return 'D';
    case 4: return 'I';
    case 5: return 'W';
    case 6: return 'E';
    case 7: return 'F';
    default: return '?';
  }
}
}  // namespace

extern "C" int __marlo_print(int buffer_id, int priority, const char *tag, const char *fmt, ...) {
  if (fmt == nullptr) return -1;
  char small[512];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(small, sizeof small, fmt, ap);
  va_end(ap);
  if (n < 0) return n;
  std::string text;
  if (static_cast<size_t>(n) < sizeof small) {
    text.assign(small, static_cast<size_t>(n));
  } else {
    text.resize(static_cast<size_t>(n) + 1);
    va_start(ap, fmt);
    std::vsnprintf(&text[0], text.size(), fmt, ap);
    va_end(ap);
    text.resize(static_cast<size_t>(n));
  }
  // One fprintf per line so that lines of concurrent threads do not interleave.
  std::fprintf(stderr, "%c/%s(%d): %s\n", priority_letter(priority), tag ? tag : "", buffer_id,
               text.c_str());
  return n;
}
