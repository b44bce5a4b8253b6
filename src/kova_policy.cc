// Entry points of policy info records, policy-change callbacks and the
// maximum-resolution aliases.
#include "kova_private.h"

extern "C" {

/* ---- Maximum-resolution aliases ---- */

/* ---- Policy info ---- */

/* ---- Policy-change callbacks ---- */

}  // extern "C"
