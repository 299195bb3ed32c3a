// SPDX-License-Identifier: Apache-2.0
// The bytes of one sample that the packets of its hint sample take, and whether they are all.
#ifndef KESTREL_TOOLS_JUDGE_TAKEN_BYTES_H
#define KESTREL_TOOLS_JUDGE_TAKEN_BYTES_H

#include <cstdint>
#include <span>
#include <vector>

#include "kestrel/isoff.h"
#include "native/codec/rtp_hint_sample.h"

namespace tool {

// Whether the bytes that a packet has besides those of samples are at most a payload header, so
// that they hold no media. False for an unknown codec. `taken` is the number of its sample
// constructors.
bool are_payload_header(int32_t codec, std::span<const uint8_t> own, size_t taken);

class TakenBytes {
  public:
    void clear();

    // The next packet of the hint sample: what its constructors take from the sample, and the bytes
    // that it has besides. `may_have_media` is whether these may hold media.
    void begin_packet(std::span<const uint8_t> own, bool is_repeated, bool may_have_media);
    void add(const kestrel::SampleConstructor& from);

    // Whether packets take more than one byte again. One byte may belong to two packets of RFC
    // 2190.
    bool overlap();

    // Whether bytes are left out that the codec's payload format has to deliver. False where it
    // cannot be said: the codec is unknown, packets may have media that are not of the sample, or
    // the sample cannot be read or is malformed. Moves the cursor of the track. `scratch` is for
    // the bytes of the sample, from 0.
    bool leave_media_out(iso_track* media, uint32_t sample, std::vector<uint8_t>& scratch);

  private:
    struct Taken {
        uint32_t begin;
        uint16_t length;
        bool is_repeated;
        uint8_t omitted_zeros;  // of the start code before it

        uint64_t end() const { return uint64_t{begin} + length; }
    };
    struct Gap {
        uint64_t begin, end;
        uint8_t zeros;  // that the packet after it omits
    };

    void sort();
    std::vector<Gap> gaps(uint64_t size) const;

    std::vector<Taken> taken_;
    bool is_sorted_ = true;
    bool may_have_media_ = false;
    // The current packet.
    bool is_repeated_ = false;
    uint8_t omitted_zeros_ = 0;
};

}  // namespace tool

#endif
