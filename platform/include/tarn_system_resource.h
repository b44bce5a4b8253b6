/* CPU inheritance (stand-in for libtarn-system-resource.so.1). */
#ifndef TARN_SYSTEM_RESOURCE_H
#define TARN_SYSTEM_RESOURCE_H

#ifdef __cplusplus
extern "C" {
#endif

/* Lends the CPU scheduling of thread source_tid (0: the calling thread) to the
 * process named dest_process for at most timeout_ms. The stand-in does nothing
 * and returns 0. */
int resource_set_cpu_inheritance(int source_tid, const char *dest_process, int timeout_ms);

/* Ends a lending made by resource_set_cpu_inheritance. The stand-in returns 0. */
int resource_clear_cpu_inheritance(int source_tid, const char *dest_process);

#ifdef __cplusplus
}
#endif
#endif
