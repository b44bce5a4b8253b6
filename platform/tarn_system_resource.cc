#include "tarn_system_resource.h"

extern "C" int resource_set_cpu_inheritance(int, const char *, int) { return 0; }

extern "C" int resource_clear_cpu_inheritance(int, const char *) { return 0; }
