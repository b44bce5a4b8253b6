/* Platform log (stand-in for libmarlo.so.0). */
#ifndef MARLO_H
#define MARLO_H

#ifdef __cplusplus
extern "C" {
#endif

/* Writes one line built from fmt to the log buffer buffer_id with the given
 * priority and tag. The stand-in writes "P/TAG(buffer_id): text" to stderr with
 * one write per line, P being the priority letter (V, D, I, W, E, F for 2 to 7,
 * '?' otherwise).
 * Only lines of at least the priority that the environment variable
 * MARLO_LOG_LEVEL names are written, read once per process: "silent", "fatal",
 * "error" (the default: 6 and above), "warning", "info", "debug", "verbose",
 * "all", or a number.
 * Returns the number of characters of the formatted text (0 for a line below
 * the level, which is not formatted), negative on error. */
int __marlo_print(int buffer_id, int priority, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif
#endif
