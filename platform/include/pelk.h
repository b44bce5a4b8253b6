/* Lightweight IPC events (stand-in for libpelk.so). */
#ifndef PELK_H
#define PELK_H

#ifdef __cplusplus
extern "C" {
#endif

/* Waits until the marker file event_path exists, at most timeout_ms
 * milliseconds (0 or less: test without waiting). Returns 0 when the event is
 * present, non-zero when it is still absent at the end of the wait.
 *
 * The stand-in watches the file's directory with inotify; it does not poll.
 * When the environment variable PELK_ROOT is set, its value is put in front of
 * every event path, so that a development service and its clients can keep
 * their markers out of the real /tmp. */
int PelkWaitEvent(const char *event_path, int timeout_ms);

#ifdef __cplusplus
}
#endif
#endif
