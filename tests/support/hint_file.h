// SPDX-License-Identifier: Apache-2.0
// Files with an RTP hint track that a test makes packet by packet.
#ifndef KESTREL_TESTS_HINT_FILE_H
#define KESTREL_TESTS_HINT_FILE_H

#include <functional>

#include "tests/support/files.h"

// A media track and its hint track, their samples in one `mdat`.
class HintFile {
  public:
    Bytes media = text("abcdefghijXYZ");  // all media samples, back to back
    std::vector<uint32_t> media_sizes = {10, 3};
    TrackSpec media_track = {.id = 1, .entry = samr_entry()};  // its tables are made
    Bytes hint_samples;                                        // all hint samples, back to back
    std::vector<uint32_t> hint_sizes;
    uint32_t delta = 160;  // ticks from sample to sample
    uint32_t max_packet = 1400;
    Bytes more_entry;
    Bytes more_hint_tables;  // further children of the hint track's `stbl`
    Bytes more_tracks;
    // Sample tables of the hint track, whose samples begin at `at`, in place of the honest ones.
    std::function<Bytes(uint32_t at)> hint_tables = {};

    void add_hint(const Bytes& hint_sample);
    Bytes build() const;

  private:
    Bytes assemble(uint32_t at) const;
    Bytes hint_track(uint32_t at) const;
};

// A hint sample of so many packets (ISO/IEC 14496-12, 9.1.3).
Bytes hint_sample(uint16_t packets, std::initializer_list<Bytes> parts);
Bytes packet_entry(uint8_t marker_type, uint16_t sequence, uint16_t constructors,
                   uint8_t flags = 0);
// Constructors.
Bytes immediate(const std::string& payload, uint8_t count);
Bytes immediate(const Bytes& payload);
Bytes from_sample(uint8_t type, uint8_t reference, uint16_t length, uint32_t number,
                  uint32_t offset);

#endif
