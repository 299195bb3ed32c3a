// Copying the media of a file into a new one, with an RTP hint track for each that has a payload
// format.
#ifndef KESTREL_TOOLS_HINTER_H
#define KESTREL_TOOLS_HINTER_H

#include <cstdint>
#include <string>

#include "tools/support.h"

namespace tool {

struct HintOptions {
    std::string input;  // its name, for messages
    uint32_t mtu = 1400;
    bool rfc2190 = false;
    bool replace = false;
};

// Copies `from` into `to`, which was opened for writing and is written when it is closed. Throws
// Error for what cannot be copied or hinted; `to` is of no use then.
void copy_with_hints(const HintOptions& options, iso_file* from, iso_file* to);

}  // namespace tool

#endif
