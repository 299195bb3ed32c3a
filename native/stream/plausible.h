// SPDX-License-Identifier: Apache-2.0
// Whether bytes can be what their codec writes. Bytes of a wrong place hardly are.
#ifndef KESTREL_NATIVE_STREAM_PLAUSIBLE_H
#define KESTREL_NATIVE_STREAM_PLAUSIBLE_H

#include <cstdint>
#include <span>
#include <string>

#include "kestrel/isoff.h"
#include "native/codec/amr_format.h"
#include "native/stream/configuration.h"

namespace kestrel::stream {

// Why the bytes of a file cannot be of their codec.
inline constexpr const char* kWrongBytesText =
    "the tables point to the wrong bytes, or the media was overwritten";
// The next step then, unless the hint track alone is wrong.
inline constexpr const char* kGetAgainText = "; get the file again";

// A remark on samples or frames of speech or pictures that are empty, without a full stop; empty
// for none. `unit` is "sample" or "frame".
std::string empty_text(uint64_t empty, uint64_t all, const char* unit, bool is_speech);

// Whether a codec, one of kestrel/isoff.h, is speech in frames of AMR.
constexpr bool is_speech(int32_t codec) {
    return codec == ISO_CODEC_SAMR || codec == ISO_CODEC_SAWB;
}

// The next two take the first bytes of a picture, or all of a shorter one; none may be either.

// A picture start code (ITU-T H.263, 5.1.1).
bool is_h263_picture(std::span<const uint8_t> bytes);
// A start code prefix (ISO/IEC 14496-2, 6.2.1), or the start of a picture with a short header.
bool is_mpeg4_picture(std::span<const uint8_t> bytes);

// The first bytes of a NAL unit that is not empty: whether its header and the first fields of a
// slice header have values that exist (ITU-T H.264, 7.3.1 and 7.4.3).
bool is_nal_unit(std::span<const uint8_t> unit);
// The same bytes: whether the unit is a slice, a partition of one or a parameter set. A sample has
// some.
bool is_picture_part(std::span<const uint8_t> unit);

// The header byte of a speech frame in storage format (RFC 4867, 5.3): whether its frame type has a
// meaning and its first bit is 0.
bool is_speech_frame(uint8_t header, const AmrBand& band);
// A sample of speech frames in storage format: whether all are frames and it ends with the last.
bool is_speech_sample(std::span<const uint8_t> sample, const AmrBand& band);

// The same of frames of any type: whether the sample ends with the last of them.
bool ends_with_speech_frame(std::span<const uint8_t> sample, const AmrBand& band);
// A sample of any codec: whether it is speech that does not end so.
bool is_uneven_speech(int32_t codec, std::span<const uint8_t> sample);

// A sample with lengths of `length_size` bytes before its NAL units: whether they end with it, all
// of them are NAL units, one is part of a picture, and none follows a long run of zeros, which
// would be empty units. Fewer bytes than a length are zeros. An empty sample may be one.
bool is_h264_sample(std::span<const uint8_t> sample, int length_size);

// A sample of any codec, one of kestrel/isoff.h; `length_size` is that of H.264.
bool is_plausible_sample(int32_t codec, int length_size, std::span<const uint8_t> sample);

// The samples of a track whose bytes its codec cannot have written.
struct ImplausibleSamples {
    uint64_t count = 0, first = 0;  // the first counts from 1
    uint64_t all = 0;               // samples of the track
    uint64_t uneven = 0;            // the first of speech that does not end with a frame, from 1
    // What a decoder needs first, and neither the decoder configuration nor a sample has.
    ConfigurationFault configuration = ConfigurationFault::kNone;

    void add(uint64_t number) {
        if (count++ == 0) first = number;
    }
    // Bytes of a wrong place are no media. A few such samples are left to the decoder, but speech
    // that does not end with a frame has no packets.
    // Without its configuration, no sample is decoded.
    bool are_refused() const {
        return uneven > 0 || count > all / 2 || configuration != ConfigurationFault::kNone;
    }
    bool any() const { return count > 0 || are_refused(); }
    // A sentence without a full stop. `entry` is the type of the sample entry, such as "s263".
    std::string text(const std::string& entry) const;
};

}  // namespace kestrel::stream

#endif
