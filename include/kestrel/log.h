/* SPDX-License-Identifier: Apache-2.0 */
/* The process-wide log level. Usable from C11 and C++11. */
#ifndef KESTREL_LOG_H
#define KESTREL_LOG_H

#include <stdint.h>

#include "kestrel/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Selects the lines that the library writes to the system log. Their priority is always LOG_ERR.
 * The library does not open the log, so the identity and facility of the host apply.
 *
 *   0, 1  none
 *   2     errors ("ERR: ")
 *   3     warnings ("WARN:") as well; the initial value
 *   4     debug lines ("DBG: ") as well
 *   5     verbose debug lines ("DBG2:") as well
 *
 * A host may set this plain integer at any time, from any thread, without a lock. A change takes
 * effect with the next line. */
KESTREL_API extern int32_t sx_Debug;

#ifdef __cplusplus
}
#endif

#endif
