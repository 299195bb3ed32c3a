// SPDX-License-Identifier: Apache-2.0
// Opening a file for one who wants no remarks on standard error.
#ifndef KESTREL_ISOFF_QUIET_H
#define KESTREL_ISOFF_QUIET_H

#include "kestrel/isoff.h"

namespace kestrel {

// Like isoFFopen for reading; null when there is no memory. Nothing about the file is printed, then
// or later.
iso_file* open_quietly(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& stream);

}  // namespace kestrel

#endif
