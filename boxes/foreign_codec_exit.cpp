#include "boxes/foreign_codec_exit.h"

#include <cstdio>
#include <cstdlib>

namespace Qvox3gp {

void exit_on_foreign_codec() {
    std::fputs("Bad 3GP file, only MP4 Video codec accepted in mp4v box\n", stderr);
    std::exit(1);
}

}  // namespace Qvox3gp
