// SPDX-License-Identifier: Apache-2.0
#include "companion/hosts/movie_watch.h"

#include "common/box_header.h"

namespace kestrel::hosts {

MovieWatch::Box MovieWatch::parse(const uint8_t* raw) {
    const BoxHeader header = load_box_header(raw);
    const bool is_large = header.size == kSizeIs64Bits;
    return {is_large ? load_be64(raw + kBoxHeader) : header.size, is_large,
            header.type == fourcc("moov")};
}

}  // namespace kestrel::hosts
