// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <cstdlib>

#include "boxes/foreign_codec_hook.h"

namespace Qvox3gp {

void meet_foreign_codec() {
    std::fputs("Bad 3GP file, only MP4 Video codec accepted in mp4v box\n", stderr);
    std::exit(1);
}

}  // namespace Qvox3gp
