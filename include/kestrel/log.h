/* SPDX-License-Identifier: Apache-2.0 */
/* The process-wide log level. Usable from C and C++. */
#ifndef KESTREL_LOG_H
#define KESTREL_LOG_H

#include <stdint.h>

#include "kestrel/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Which lines the library writes to the system log (priority LOG_ERR, whatever the level; the
 * library never opens the log itself, so the host's identity and facility apply):
 *
 *   0, 1  none
 *   2     errors ("ERR: ")
 *   3     warnings ("WARN:") as well; the initial value
 *   4     debug lines ("DBG: ") as well
 *   5     verbose debug lines ("DBG2:") as well
 *
 * A plain integer that the host may set at any time; a change takes effect at each log site's next
 * test. It is read and written without a lock. */
KESTREL_API extern int32_t sx_Debug;

#ifdef __cplusplus
}
#endif

#endif
