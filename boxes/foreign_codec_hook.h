// SPDX-License-Identifier: Apache-2.0
// The reaction to an "mp4v" entry of a codec other than MPEG-4 Visual.
#ifndef KESTREL_BOXES_FOREIGN_CODEC_HOOK_H
#define KESTREL_BOXES_FOREIGN_CODEC_HOOK_H

namespace Qvox3gp {

// Called while an "esds" is read, after an object type other than MPEG-4 Visual.
//
// Each program that reads boxes defines it. The definition of the library, in the class driver, is
// its only process exit: it writes a message to the standard error stream and exits with status 1.
// After a definition that returns, the rest of the "esds" is read as for MPEG-4 Visual.
void meet_foreign_codec();

}  // namespace Qvox3gp

#endif
