/* SPDX-License-Identifier: Apache-2.0 */
/* The version of these headers, and of the library that a program runs with. Usable from C11 and
 * C++11.
 *
 * Versions follow the major, minor and patch numbers of semantic versioning:
 *
 * - major: a function is gone, or a call or a record changed so that programs must be compiled
 *   anew. The file name of the library carries it, so two majors can be installed side by side.
 * - minor: functions, constants or reported reasons were added. A program that was built with a
 *   lower minor number of the same major runs.
 * - patch: nothing of that.
 *
 * The numbers are raised by a release. Until then they are those of the last one, and "Unreleased"
 * in CHANGELOG.md lists what it does not have.
 */
#ifndef KESTREL_VERSION_H
#define KESTREL_VERSION_H

#include <stdint.h>

#include "kestrel/api.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KST_VERSION_MAJOR 1
#define KST_VERSION_MINOR 0
#define KST_VERSION_PATCH 0

/* Returns the version of the library at run time: major * 65536 + minor * 256 + patch. A program
 * that was built with these headers runs with it when the major numbers are equal and the minor
 * number is not below KST_VERSION_MINOR. */
KESTREL_API uint32_t kst_Version(void);

#ifdef __cplusplus
}
#endif

#endif
