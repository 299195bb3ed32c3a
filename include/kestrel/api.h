/* SPDX-License-Identifier: Apache-2.0 */
/* Visibility of the exported names. The library is built with hidden visibility; what carries
 * KESTREL_API is its whole public surface. Usable from C11 and C++11. */
#ifndef KESTREL_API_H
#define KESTREL_API_H

#define KESTREL_API __attribute__((visibility("default")))

#endif
