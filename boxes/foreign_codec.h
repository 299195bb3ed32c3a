// What becomes of reading an "mp4v" entry of a codec other than MPEG-4 Visual.
#ifndef KESTREL_BOXES_FOREIGN_CODEC_H
#define KESTREL_BOXES_FOREIGN_CODEC_H

namespace Qvox3gp {

// Called by the reading of an "esds", after an object type that is not that of MPEG-4 Visual.
//
// The library's own, its only process exit, writes the complaint to the standard error stream and
// exits with status 1. It has a source file of its own, so that a program can link another one:
// after one that returns, the rest of the "esds" is read as that of MPEG-4 Visual is.
void meet_foreign_codec();

}  // namespace Qvox3gp

#endif
