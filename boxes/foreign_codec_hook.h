// SPDX-License-Identifier: Apache-2.0
// What becomes of reading an "mp4v" entry of a codec other than MPEG-4 Visual.
#ifndef KESTREL_BOXES_FOREIGN_CODEC_HOOK_H
#define KESTREL_BOXES_FOREIGN_CODEC_HOOK_H

namespace Qvox3gp {

// Called by the reading of an "esds", after an object type that is not that of MPEG-4 Visual.
//
// It is defined by who reads boxes. The library's, its only process exit, stands with the class
// driver: it writes a complaint to the standard error stream and exits with status 1. After one
// that returns, the rest of the "esds" is read like that of MPEG-4 Visual.
void meet_foreign_codec();

}  // namespace Qvox3gp

#endif
