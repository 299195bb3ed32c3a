// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstring>

#include "common/clock.h"
#include "interface/src/isoff/record/record.h"
#include "interface/src/mmfi/delivery.h"
#include "interface/src/mmfi/frame_store.h"
#include "interface/src/mmfi/mmfiInterface.h"
#include "kestrel/native_records.h"
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
    kEnded = 6,
};

constexpr uint32_t kZeroWord = sizeof(uint32_t);
constexpr uint32_t kFrameHeaderSize = sizeof(AUD_AudFrame_Native) + kZeroWord;
constexpr uint32_t kModeByte = 1;
// Bytes that the frame record counts besides the frame: the record, the zero word and the mode
// byte.
constexpr uint32_t kFrameOverhead = kFrameHeaderSize + kModeByte;

// How the streams of the two bands differ.
struct Band {
    const AmrBand& amr;
    int highest_mode_byte;  // of the speech modes; higher types have no speech
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

int32_t put_property_record(mm_Interface* record, const Band& band, Delivery delivery) {
    if (!delivery.holds(sizeof(PROP_Header_Info)))
        return delivery.ask_for(sizeof(PROP_Header_Info));
    record->reader_state = kCodecRecord;
    return delivery.deliver(static_cast<uint32_t>(
        tel_put_hdr_aud_prop(delivery.bytes(), frame_count(record->track, band))));
}

int32_t put_codec_record(mm_Interface* record, const Band& band, Delivery delivery) {
    if (!delivery.holds(sizeof(AUD_Codec_Header)))
        return delivery.ask_for(sizeof(AUD_Codec_Header));
    record->reader_state = kIndexRecord;
    const int written = band.put_codec(delivery.bytes());
    // A status that the table of texts does not have. Kept on purpose.
    if (written < 0) return delivery.deliver(0, KST_CODEC_RECORD_FAILED);
    return delivery.deliver(static_cast<uint32_t>(written));
}

int32_t put_index_record(mm_Interface* record, const Band& band, Delivery delivery) {
    if (!delivery.holds(sizeof(AUD_Header_IndxInfo)))
        return delivery.ask_for(sizeof(AUD_Header_IndxInfo));
    record->reader_state = kFileInfoRecord;
    return delivery.deliver(static_cast<uint32_t>(
        tel_put_hdr_aud_index(delivery.bytes(), frame_count(record->track, band))));
}

int32_t put_file_info_record(mm_Interface* record, const Band& band, Delivery delivery) {
    if (!delivery.holds(sizeof(VID_FileInfo))) return delivery.ask_for(sizeof(VID_FileInfo));
    record->reader_state = kFrameHeader;
    double duration = 0.0;
    isoFFtrackInfo(record->track, nullptr, nullptr, &duration, nullptr);
    const int written = tel_put_hdr_fileInfo(delivery.bytes(), duration);
    tel_native_init(&record->native, band.amr.native_payload_type, kMaxPacketBytes,
                    NATIVE_MODE_PLAIN, record->track, 0);
    return delivery.deliver(static_cast<uint32_t>(written));
}

// Stages the next sample that is not empty. Returns KST_SUCCESS, KST_END_OF_FILE, KST_NOT_YET, or
// KST_FAILURE for a sample that cannot be read.
int32_t stage_sample(mm_Interface* record) {
    iso_track* track = record->track;
    Staging staging(record);
    while (track->cur_sample < track->sample_count) {
        const uint32_t size = sample_size_of(track, track->cur_sample);
        if (size > kMaxFrameBytes) return KST_FAILURE;
        if (!may_allocate(track, size)) return KST_NOT_YET;
        uint8_t* room = staging.room(size);
        if (room == nullptr) return KST_FAILURE;
        const int got = isoFFread(track, room, static_cast<int>(size), nullptr, nullptr);
        if (got < 0) return KST_NOT_YET;
        staging.replace(room, static_cast<uint32_t>(got));
        if (got > 0) return KST_SUCCESS;
    }
    return KST_END_OF_FILE;
}

// Moves the first staged frame into the sample buffer, after its mode byte, and returns its size.
// Fills a truncated frame with zeros.
uint32_t take_frame(mm_Interface* record, const Band& band) {
    Staging staging(record);
    const uint8_t* frame = staging.bytes();
    const int type = storage_frame_type(frame[0]);
    const auto size = static_cast<uint32_t>(storage_frame_size(band.amr.frame_bits[type]));
    const uint32_t there = std::min(size, staging.count());
    std::memcpy(record->sample_buffer(), frame, there);
    std::memset(record->sample_buffer() + there, 0, size - there);
    staging.consume(there);

    const int mode_byte = type * 16;
    if (mode_byte <= band.highest_mode_byte)
        record->last_mode_byte = static_cast<uint8_t>(mode_byte);
    *record->mode_byte() = record->last_mode_byte;
    return size;
}

// Sets the frame's time to the running clock, rounded, and advances the clock by one frame.
void step_clock(tel_native& native) {
    native.hdr.time = clock_to_timestamp(native.time_acc);
    native.time_acc = clock_after(native.time_acc, native.hdr.clock / kAmrFramesPerSecond);
}

// Leaves a frame record without a frame in the buffer, but delivers nothing.
int32_t deliver_not_yet(Delivery delivery) {
    const uint32_t record[sizeof(AUD_AudFrame_Native) / sizeof(uint32_t)] = {
        0, sizeof(AUD_AudFrame_Native)};
    std::memcpy(delivery.bytes(), record, sizeof record);
    return delivery.deliver(0, KST_NOT_YET);
}

int32_t put_frame_header(mm_Interface* record, const Band& band, Delivery delivery) {
    if (!delivery.holds(kFrameHeaderSize)) return delivery.ask_for(kFrameHeaderSize);
    const bool new_sample = Staging(record).count() == 0;
    const int32_t status = new_sample ? stage_sample(record) : int32_t{KST_SUCCESS};
    if (status == KST_NOT_YET) return deliver_not_yet(delivery);
    if (status == KST_END_OF_FILE) record->reader_state = kEnded;
    if (status != KST_SUCCESS) return delivery.deliver(0, status);

    record->reader_state = kFrameBytes;
    const uint32_t frame_size = take_frame(record, band);
    step_clock(record->native);
    band.put_frame(delivery.bytes(), &record->native, frame_size + kFrameOverhead);
    std::memset(delivery.bytes() + sizeof(AUD_AudFrame_Native), 0, kZeroWord);
    record->auxiliary_count = static_cast<uint16_t>(frame_size + kModeByte);
    return delivery.deliver(
        kFrameHeaderSize,
        new_sample ? mmfi_seek(record->track, record->track->cur_offset) : int32_t{KST_SUCCESS});
}

int32_t put_frame_bytes(mm_Interface* record, Delivery delivery) {
    if (!delivery.holds(record->auxiliary_count)) return delivery.ask_for(record->auxiliary_count);
    record->reader_state = kFrameHeader;
    std::memcpy(delivery.bytes(), record->mode_byte(), record->auxiliary_count);
    return delivery.deliver(record->auxiliary_count);
}

int32_t read_audio(mm_Interface* record, const Band& band, Delivery delivery, bool arriving) {
    begin_read(record, arriving);
    switch (record->reader_state) {
        case kPropertyRecord:
            return put_property_record(record, band, delivery);
        case kCodecRecord:
            return put_codec_record(record, band, delivery);
        case kIndexRecord:
            return put_index_record(record, band, delivery);
        case kFileInfoRecord:
            return put_file_info_record(record, band, delivery);
        case kFrameHeader:
            return put_frame_header(record, band, delivery);
        case kFrameBytes:
            return put_frame_bytes(record, delivery);
        case kEnded:  // whatever room the call has
            return delivery.deliver(0, KST_END_OF_FILE);
        default:
            return delivery.deliver(0);
    }
}

}  // namespace

int32_t mmfi_Read_AMRNB(mm_Interface* record, unsigned char* buffer, uint32_t* size,
                        bool arriving) {
    return read_audio(record, kNarrowBandStream, {buffer, size}, arriving);
}

int32_t mmfi_Read_AMRWB(mm_Interface* record, unsigned char* buffer, uint32_t* size,
                        bool arriving) {
    return read_audio(record, kWideBandStream, {buffer, size}, arriving);
}

}  // namespace kestrel
