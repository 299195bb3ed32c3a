#include <cstring>

#include "common/clock.h"
#include "kestrel/native.h"
#include "kestrel/native_records.h"

// The stream header records and the audio frame header of the `tel` format.

using namespace kestrel;

namespace {

constexpr uint32_t kAudioHeaderLength = sizeof(PROP_Header_Info) + sizeof(AUD_Codec_Header) +
                                        sizeof(AUD_Header_IndxInfo) + sizeof(VID_FileInfo);
static_assert(kAudioHeaderLength == 68);

constexpr uint8_t kFiller = 0xCC;
constexpr uint32_t kNarrowBandCoder = 10;
constexpr uint32_t kWideBandCoder = 20;
constexpr uint32_t kNarrowBandFrame = 160;  // samples of 20 ms
constexpr uint32_t kWideBandFrame = 320;

template <typename Record>
int put(void* out, const Record& record) {
    if (out == nullptr) return -1;
    std::memcpy(out, &record, sizeof record);
    return static_cast<int>(sizeof record);
}

int put_prop(void* out, const char* medium, uint32_t header_length, uint32_t value) {
    PROP_Header_Info record{{}, header_length, kPropConstant, 0, value};
    std::memcpy(record.medium, medium, sizeof record.medium);
    return put(out, record);
}

int put_file_info(void* out, double duration) {
    VID_FileInfo record{truncate_to_u32(duration * 1000), {}};
    std::memset(record.filler, kFiller, sizeof record.filler);
    return put(out, record);
}

int put_audio_frame(void* out, tel_native* state, uint32_t length, uint32_t coder,
                    uint32_t samples) {
    TEL_RTP& hdr = state->hdr;
    const int written = put(out, AUD_AudFrame_Native{length, coder, hdr.time, hdr.time,
                                                     static_cast<uint16_t>(hdr.seq), 0});
    hdr.time += samples;
    hdr.seq++;
    return written;
}

}  // namespace

int tel_put_hdr_aud_prop(void* out, uint32_t frame_count) {
    return put_prop(out, kAudioMedium, kAudioHeaderLength, frame_count);
}

int tel_put_hdr_aud_codec(void* out) {
    return put(out, AUD_Codec_Header{sizeof(AUD_Codec_Header), 33, 64, 8});
}

int tel_put_hdr_aud_codec_wb(void* out) {
    return put(out, AUD_Codec_Header{sizeof(AUD_Codec_Header), 51, 128, 16});
}

int tel_put_hdr_aud_index(void* out, uint32_t) {
    return put(out, AUD_Header_IndxInfo{});
}

int tel_put_hdr_fileInfo(void* out, double duration) {
    return put_file_info(out, duration);
}

int tel_put_hdr_vid_fileInfo(void* out, double duration) {
    return put_file_info(out, duration);
}

int tel_put_hdr_aud_frame(void* out, tel_native* state, uint32_t length) {
    return put_audio_frame(out, state, length, kNarrowBandCoder, kNarrowBandFrame);
}

int tel_put_hdr_aud_frame_wb(void* out, tel_native* state, uint32_t length) {
    return put_audio_frame(out, state, length, kWideBandCoder, kWideBandFrame);
}
