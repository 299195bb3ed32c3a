// SPDX-License-Identifier: Apache-2.0
// Filling the stream header records from plain values, for the writers of both APIs.
#ifndef KESTREL_NATIVE_HEADER_RECORDS_H
#define KESTREL_NATIVE_HEADER_RECORDS_H

#include <cstring>
#include <span>

#include "kestrel/native_records.h"

namespace kestrel {

// The values of a video codec in the header records.
struct VideoFormat {
    const char* name;        // in the codec record
    uint32_t config_record;  // bytes of the codec configuration record
    uint32_t config_length;  // the length in the codec record
};

// The name of H.263 depends on the payload header of the packets: RFC 2190 for the first one, RFC
// 4629 for the second. Both declare the length of an MPEG-4 configuration record, and H.264
// declares 365 for its 368 bytes, as platforms expect.
inline constexpr VideoFormat kMpeg4Format{"mp4v", sizeof(VID_Header_MPEG4CodecConfig), 356};
inline constexpr VideoFormat kH263Format{"s263", sizeof(VID_Header_H263CodecConfig), 356};
inline constexpr VideoFormat kH263PlusFormat{"s263+", sizeof(VID_Header_H263CodecConfig), 356};
inline constexpr VideoFormat kH264Format{"s264", sizeof(VID_Header_H264CodecConfig), 365};

// Bytes of all stream header records.
constexpr uint32_t video_header_length(const VideoFormat& format) {
    return static_cast<uint32_t>(sizeof(PROP_Header_Info) + sizeof(VID_Header_NTSInfo) +
                                 sizeof(VID_Header_IndxInfo) + sizeof(VID_Header_CodecInfo) +
                                 format.config_record + sizeof(VID_FileInfo));
}
static_assert(video_header_length(kMpeg4Format) == 440);
static_assert(video_header_length(kH263Format) == 92);
static_assert(video_header_length(kH264Format) == 452);

PROP_Header_Info video_prop(const VideoFormat& format, uint32_t frame_rate);
VID_Header_CodecInfo video_codec(const VideoFormat& format, uint32_t bit_rate, uint32_t width,
                                 uint32_t height);
VID_Header_MPEG4CodecConfig mpeg4_config(std::span<const uint8_t> config);
VID_FileInfo file_info(double duration_seconds);

// Copies a record to `out`. Returns its size, or -1 when `out` is null.
template <typename Record>
int put_record(void* out, const Record& record) {
    if (out == nullptr) return -1;
    std::memcpy(out, &record, sizeof record);
    return static_cast<int>(sizeof record);
}

}  // namespace kestrel

#endif
