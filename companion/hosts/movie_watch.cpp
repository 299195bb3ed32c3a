// SPDX-License-Identifier: Apache-2.0
#include "companion/hosts/movie_watch.h"

#include <cstring>

#include "common/bytes.h"

namespace kestrel::hosts {

// ISO/IEC 14496-12, 4.2: a size of 1 stands for a 64-bit size after the type.
MovieWatch::Box MovieWatch::parse(const uint8_t* header) {
    Box box;
    box.size = load_be32(header);
    box.is_movie = std::memcmp(&header[4], "moov", 4) == 0;
    if (box.size == 1) {
        box.is_long = true;
        box.size = uint64_t{load_be32(&header[8])} << 32 | load_be32(&header[12]);
    }
    return box;
}

}  // namespace kestrel::hosts
