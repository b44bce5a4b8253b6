#include "marlo.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// The lowest priority written, from MARLO_LOG_LEVEL (read once): errors only
// unless asked for more, so that a program using the library keeps a quiet
// stderr.
int lowest_priority() {
  static const int lowest = [] {
    const char *level = std::getenv("MARLO_LOG_LEVEL");
    if (level == nullptr) return 6;
    struct Name {
      const char *name;
      int priority;
    };
    static const Name names[] = {{"silent", 8}, {"fatal", 7},   {"error", 6},   {"warning", 5},
                                 {"info", 4},   {"debug", 3},   {"verbose", 2}, {"all", 0}};
    for (const Name &n : names) {
      if (std::strcmp(level, n.name) == 0) return n.priority;
    }
    char *end = nullptr;
    const long number = std::strtol(level, &end, 10);
    return end != level && *end == '\0' ? static_cast<int>(number) : 6;
  }();
  return lowest;
}

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

// Writes all of line with as few write(2) calls as the kernel allows: one for
// any line that fits a pipe's atomic size, so that lines of concurrent
// threads never interleave.
void write_all(const char *line, size_t size) {
  while (size > 0) {
    ssize_t n = write(STDERR_FILENO, line, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    line += n;
    size -= static_cast<size_t>(n);
  }
}

// Writes "P/TAG(buffer_id): " to out (room for at least 96 bytes) and returns
// its length; built by hand, as it is the same for every line of a caller.
size_t put_prefix(char *out, int priority, const char *tag, int buffer_id) {
  size_t at = 0;
  out[at++] = priority_letter(priority);
  out[at++] = '/';
  const size_t tag_len = tag ? strnlen(tag, 64) : 0;
  if (tag_len > 0) std::memcpy(out + at, tag, tag_len);
  at += tag_len;
  out[at++] = '(';
  char digits[12];
  size_t d = 0;
  unsigned int v = buffer_id < 0 ? 0u - static_cast<unsigned int>(buffer_id) : static_cast<unsigned int>(buffer_id);
  do {
    digits[d++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  if (buffer_id < 0) out[at++] = '-';
  while (d > 0) out[at++] = digits[--d];
  out[at++] = ')';
  out[at++] = ':';
  out[at++] = ' ';
  return at;
}

}  // namespace

// Every library call logs a few lines, so a line costs one formatting pass
// into a stack buffer and one write: no stdio lock, no heap.
extern "C" int __marlo_print(int buffer_id, int priority, const char *tag, const char *fmt, ...) {
  if (fmt == nullptr) return -1;
  if (priority < lowest_priority()) return 0;
  char small[512];
  const size_t at = put_prefix(small, priority, tag, buffer_id);
  va_list ap;
  va_start(ap, fmt);
  const int n = std::vsnprintf(small + at, sizeof small - at, fmt, ap);
  va_end(ap);
  if (n < 0) return n;
  const size_t size = at + static_cast<size_t>(n) + 1;  // with the newline
  if (size < sizeof small) {
    small[size - 1] = '\n';
    write_all(small, size);
    return n;
  }
  std::unique_ptr<char[]> big(new (std::nothrow) char[size + 1]);
  if (!big) return -1;
  std::memcpy(big.get(), small, at);
  va_start(ap, fmt);
  std::vsnprintf(big.get() + at, size - at, fmt, ap);
  va_end(ap);
  big[size - 1] = '\n';
  write_all(big.get(), size);
  return n;
}
