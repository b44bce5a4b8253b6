// Application lists and the registration of lists with the service.
#include "kova_private.h"

extern "C" {

/* ---- Application lists ---- */

/* ---- List registration ---- */

}  // extern "C"
