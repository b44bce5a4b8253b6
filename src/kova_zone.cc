// Entry points of resource zones and the audio focus zone.
#include "kova_private.h"

extern "C" {

/* ---- Resource zones ---- */

/* ---- Audio focus zone ---- */

}  // extern "C"
