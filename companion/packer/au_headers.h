// SPDX-License-Identifier: Apache-2.0
// The AU headers before the media of MPEG-4 packets (RFC 3640, 3.2.1).
#ifndef KESTREL_COMPANION_PACKER_AU_HEADERS_H
#define KESTREL_COMPANION_PACKER_AU_HEADERS_H

#include <cstdint>
#include <optional>
#include <span>

#include "companion/packer/number_runs.h"
#include "companion/packer/timeline.h"

namespace kestrel::packer {

// Collects the headers of a stream, and finds out what their fields are, which the stream does not
// declare. The one layout that is recognised has the delay from decoding to display as its only
// field: DTS-flag and DTS-delta.
class AuHeaders {
  public:
    // Takes the bytes of a packet before the media; empty for none.
    void add(std::span<const uint8_t> section);
    // The packets that were added last are a picture.
    void end_picture();

    // Whether there is any packet with AU headers.
    bool any() const { return any_; }
    // Returns the length of DTS-delta in bits, if the header of each packet is just that and agrees
    // with the times of its picture; otherwise 0.
    unsigned dts_delta_bits(const Timeline& timeline) const;

  private:
    bool any_ = false;
    bool alike_ = true;  // each packet has a DTS-delta, of one length, that of its picture
    unsigned bits_ = 0;
    std::optional<uint32_t> delta_;  // of the current picture
    NumberRuns deltas_;              // of all pictures
};

}  // namespace kestrel::packer

#endif
