// SPDX-License-Identifier: Apache-2.0
// Whether bytes can be what their codec writes. Bytes of a wrong place hardly are.
#ifndef KESTREL_COMPANION_STREAM_PLAUSIBLE_H
#define KESTREL_COMPANION_STREAM_PLAUSIBLE_H

#include <cstdint>
#include <span>

#include "native/codec/amr_format.h"

namespace kestrel::stream {

// Why the bytes of a file cannot be of their codec, and the next step.
inline constexpr const char* kWrongBytesText =
    "the tables point to the wrong bytes, or the media was overwritten; get the file again";

// The next two take the first bytes of a picture; fewer than three may be any.

// A picture start code (ITU-T H.263, 5.1.1).
bool is_h263_picture(std::span<const uint8_t> bytes);
// A start code prefix (ISO/IEC 14496-2, 6.2.1), or the start of a picture with a short header.
bool is_mpeg4_picture(std::span<const uint8_t> bytes);

// The first bytes of a NAL unit that is not empty: whether its header and the first fields of a
// slice header have values that exist (ITU-T H.264, 7.3.1 and 7.4.3).
bool is_nal_unit(std::span<const uint8_t> unit);

// The header byte of a speech frame in storage format (RFC 4867, 5.3): whether its frame type has a
// meaning and its first bit is 0.
bool is_speech_frame(uint8_t header, const AmrBand& band);
// A sample of speech frames in storage format: whether all are frames and it ends with the last.
bool is_speech_sample(std::span<const uint8_t> sample, const AmrBand& band);

// A sample with lengths of `length_size` bytes before its NAL units: whether they end with it and
// all of them are NAL units. There is at least one that is not empty, except in an empty sample.
bool is_h264_sample(std::span<const uint8_t> sample, int length_size);

}  // namespace kestrel::stream

#endif
