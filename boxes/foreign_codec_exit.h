// The library's only process exit.
#ifndef KESTREL_BOXES_FOREIGN_CODEC_EXIT_H
#define KESTREL_BOXES_FOREIGN_CODEC_EXIT_H

namespace Qvox3gp {

// Writes the complaint to the standard error stream and exits with status 1. In a file of its own,
// so that a program which feeds random files to the boxes can link another one.
[[noreturn]] void exit_on_foreign_codec();

}  // namespace Qvox3gp

#endif
