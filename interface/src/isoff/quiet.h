// SPDX-License-Identifier: Apache-2.0
// Opening a file without lines on the standard error stream.
#ifndef KESTREL_ISOFF_QUIET_H
#define KESTREL_ISOFF_QUIET_H

#include "kestrel/isoff.h"

namespace kestrel {

// Opens a file like isoFFopen for reading, and never prints lines about it. Returns null without
// memory.
iso_file* open_quietly(_TAG_KST_IOSTREAM_CALLBACK_INTERFACE*& stream);

}  // namespace kestrel

#endif
