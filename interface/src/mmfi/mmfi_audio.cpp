#include <algorithm>
#include <cstring>

#include "common/clock.h"
#include "interface/src/mmfi/mmfiInterface.h"
#include "kestrel/native_records.h"
#include "kestrel/status.h"
#include "native/codec/amr_format.h"

// The audio readers: four header records, then two calls a speech frame. A sample holds frames in
// storage format back to back; a frame is 20 ms.

namespace kestrel {
namespace {

enum ReaderState : uint32_t {
    kPropertyRecord = 0,
    kCodecRecord = 1,
    kIndexRecord = 2,
    kFileInfoRecord = 3,
    kFrameHeader = 4,
    kFrameBytes = 5,
};

constexpr uint32_t kZeroWord = sizeof(uint32_t);
constexpr uint32_t kFrameHeaderSize = sizeof(AUD_AudFrame_Native) + kZeroWord;
constexpr uint32_t kModeByte = 1;
// What the frame record counts besides the frame: the record, the zero word and the mode byte.
constexpr uint32_t kFrameOverhead = kFrameHeaderSize + kModeByte;
constexpr int kEndOfTrack = -1;

// How the streams of the two bands differ.
struct Band {
    const AmrBand& amr;
    int highest_mode_byte;  // of the speech modes; the types above carry none of their own
    int (*put_codec)(void*);
    int (*put_frame)(void*, tel_native*, uint32_t);
};

constexpr Band kNarrowBandStream{kNarrowBand, 7 * 16, tel_put_hdr_aud_codec, tel_put_hdr_aud_frame};
constexpr Band kWideBandStream{kWideBand, 8 * 16, tel_put_hdr_aud_codec_wb,
                               tel_put_hdr_aud_frame_wb};

uint32_t frame_count(iso_track* track, const Band& band) {
    int samples = 0;
    isoFFtrackInfo(track, nullptr, &samples, nullptr, nullptr);
    if (track->frames_per_sample == 1) return static_cast<uint32_t>(samples);
    uint32_t frames = 0;
    for (int32_t i = 0; i < track->stts_count; ++i)
        frames += track->stts[i].count * (track->stts[i].delta / band.amr.samples_per_frame);
    return frames;
}

int32_t put_property_record(mm_Interface* record, const Band& band, unsigned char* buffer,
                            uint32_t* size) {
    if (!has_room(size, sizeof(PROP_Header_Info))) return KST_BAD_ARGUMENT;
    record->reader_state = kCodecRecord;
    *size = static_cast<uint32_t>(tel_put_hdr_aud_prop(buffer, frame_count(record->track, band)));
    return KST_SUCCESS;
}

int32_t put_codec_record(mm_Interface* record, const Band& band, unsigned char* buffer,
                         uint32_t* size) {
    if (!has_room(size, sizeof(AUD_Codec_Header))) return KST_BAD_ARGUMENT;
    record->reader_state = kIndexRecord;
    const int written = band.put_codec(buffer);
    *size = static_cast<uint32_t>(std::max(written, 0));
    // A code outside the status table, kept on purpose.
    return written < 0 ? int32_t{KST_CODEC_RECORD_FAILED} : int32_t{KST_SUCCESS};
}

int32_t put_index_record(mm_Interface* record, const Band& band, unsigned char* buffer,
                         uint32_t* size) {
    if (!has_room(size, sizeof(AUD_Header_IndxInfo))) return KST_BAD_ARGUMENT;
    record->reader_state = kFileInfoRecord;
    *size = static_cast<uint32_t>(tel_put_hdr_aud_index(buffer, frame_count(record->track, band)));
    return KST_SUCCESS;
}

int32_t put_file_info_record(mm_Interface* record, const Band& band, unsigned char* buffer,
                             uint32_t* size) {
    if (!has_room(size, sizeof(VID_FileInfo))) return KST_BAD_ARGUMENT;
    record->reader_state = kFrameHeader;
    double duration = 0.0;
    isoFFtrackInfo(record->track, nullptr, nullptr, &duration, nullptr);
    *size = static_cast<uint32_t>(tel_put_hdr_fileInfo(buffer, duration));
    tel_native_init(&record->native, band.amr.native_payload_type, kMostPacketBytes,
                    NATIVE_MODE_PLAIN, record->track, 0);
    return KST_SUCCESS;
}

// Reads the next sample that holds anything into the staging buffer: the bytes read, or what
// isoFFread answered.
int stage_sample(mm_Interface* record) {
    int got;
    do {
        got = isoFFread(record->track, record->staging, kBufferSize, nullptr, nullptr);
    } while (got == 0);
    record->staged_from = 0;
    record->staged_count = static_cast<uint16_t>(std::max(got, 0));
    return got;
}

// The frame at the head of the staged bytes, taken into the sample buffer behind its mode byte.
// Returns its size. What a cut frame lacks is filled with zeros.
uint32_t take_frame(mm_Interface* record, const Band& band) {
    const uint8_t* frame = record->staging + record->staged_from;
    const int type = storage_frame_type(frame[0]);
    const auto size = static_cast<uint32_t>(storage_frame_size(band.amr.frame_bits[type]));
    const uint32_t there = std::min<uint32_t>(size, record->staged_count);
    std::memcpy(record->sample_buffer(), frame, there);
    std::memset(record->sample_buffer() + there, 0, size - there);
    record->staged_from += there;
    record->staged_count = static_cast<uint16_t>(record->staged_count - there);

    const int mode_byte = type * 16;
    if (mode_byte <= band.highest_mode_byte)
        record->last_mode_byte = static_cast<uint8_t>(mode_byte);
    *record->mode_byte() = record->last_mode_byte;
    return size;
}

// The frame's time is the running clock, rounded; the clock then grows by one frame.
void step_clock(tel_native& native) {
    native.hdr.time = clock_to_timestamp(native.time_acc);
    native.time_acc = clock_after(native.time_acc, native.hdr.clock / kAmrFramesPerSecond);
}

int32_t tell_not_yet(unsigned char* buffer, uint32_t* size) {
    const uint32_t record[sizeof(AUD_AudFrame_Native) / sizeof(uint32_t)] = {
        0, sizeof(AUD_AudFrame_Native)};
    std::memcpy(buffer, record, sizeof record);
    *size = 0;
    return KST_NOT_YET;
}

int32_t put_frame_header(mm_Interface* record, const Band& band, unsigned char* buffer,
                         uint32_t* size) {
    if (!has_room(size, kFrameHeaderSize)) return KST_BAD_ARGUMENT;
    const bool new_sample = record->staged_count == 0;
    const int got = new_sample ? stage_sample(record) : 1;
    if (got == kEndOfTrack) {
        *size = 0;
        return KST_END_OF_FILE;
    }
    if (got < 0) return tell_not_yet(buffer, size);

    record->reader_state = kFrameBytes;
    const uint32_t frame_size = take_frame(record, band);
    step_clock(record->native);
    band.put_frame(buffer, &record->native, frame_size + kFrameOverhead);
    std::memset(buffer + sizeof(AUD_AudFrame_Native), 0, kZeroWord);
    record->auxiliary_count = static_cast<uint16_t>(frame_size + kModeByte);
    *size = kFrameHeaderSize;
    return new_sample ? mmfi_seek(record->track, record->track->cur_offset) : int32_t{KST_SUCCESS};
}

int32_t put_frame_bytes(mm_Interface* record, unsigned char* buffer, uint32_t* size) {
    if (!has_room(size, record->auxiliary_count)) return KST_BAD_ARGUMENT;
    record->reader_state = kFrameHeader;
    std::memcpy(buffer, record->mode_byte(), record->auxiliary_count);
    *size = record->auxiliary_count;
    return KST_SUCCESS;
}

int32_t read_audio(mm_Interface* record, const Band& band, unsigned char* buffer, uint32_t* size,
                   bool flag) {
    begin_read(record, flag);
    switch (record->reader_state) {
        case kPropertyRecord:
            return put_property_record(record, band, buffer, size);
        case kCodecRecord:
            return put_codec_record(record, band, buffer, size);
        case kIndexRecord:
            return put_index_record(record, band, buffer, size);
        case kFileInfoRecord:
            return put_file_info_record(record, band, buffer, size);
        case kFrameHeader:
            return put_frame_header(record, band, buffer, size);
        case kFrameBytes:
            return put_frame_bytes(record, buffer, size);
        default:
            *size = 0;
            return KST_SUCCESS;
    }
}

}  // namespace

int32_t mmfi_Read_AMRNB(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool flag) {
    return read_audio(record, kNarrowBandStream, buffer, size, flag);
}

int32_t mmfi_Read_AMRWB(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool flag) {
    return read_audio(record, kWideBandStream, buffer, size, flag);
}

}  // namespace kestrel
